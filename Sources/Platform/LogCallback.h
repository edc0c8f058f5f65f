#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include <fmt/compile.h>
#include <fmt/format.h>

namespace zk {

/// Takes one line of a diagnostic log, without its line feed. Absent means no logging. The line
/// lives as long as the call.
using LogCallback = std::function<void(std::string_view)>;

/// How many octets an argument of a line, an integer or a text, takes at most.
template <typename Arg>
std::size_t mostOctets(const Arg& argument) {
  if constexpr (std::is_convertible_v<const Arg&, std::string_view>) {
    return std::string_view(argument).size();
  } else {
    static_assert(std::is_integral_v<Arg>);
    return 20;
  }
}

/// Appends to `out` what `format`, an FMT_COMPILE string, says of `args`. Every datagram is worth
/// several lines. Reading a format anew each time would cost as much as the rest of a line, and so
/// would asking for room before each character of it.
template <typename Format, typename... Args>
void appendFormatted(fmt::memory_buffer& out, const Format& format, const Args&... args) {
  const std::size_t at = out.size();
  out.resize(at + fmt::string_view(format).size() + (std::size_t{0} + ... + mostOctets(args)));
  const char* const end = fmt::format_to(out.data() + at, format, args...);
  out.resize(static_cast<std::size_t>(end - out.data()));
}

/// Formats a line, in place for the usual lengths, and hands it to `callback` when there is one.
template <typename Format, typename... Args>
void logLine(const LogCallback& callback, const Format& format, const Args&... args) {
  if (callback) {
    fmt::memory_buffer line;
    appendFormatted(line, format, args...);
    callback({line.data(), line.size()});
  }
}

}  // namespace zk
