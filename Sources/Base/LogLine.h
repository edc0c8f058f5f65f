#pragma once

#include <functional>
#include <iterator>
#include <string_view>
#include <type_traits>

#include <fmt/compile.h>
#include <fmt/format.h>

namespace zk {

/// Takes one line of a log, without its line feed. Absent means no logging. The line lives as long
/// as the call.
using LogCallback = std::function<void(std::string_view)>;

/// Whether a text holds what must not get into a log: control characters, C1 and bidirectional ones
/// included, with which a stranger (a proxy names peers by octets of its choice) could forge lines
/// or have them read backwards.
bool holdsControl(std::string_view text);

/// Puts "?" in the place of each of them.
void replaceControls(fmt::memory_buffer& text);

/// Formats a line and hands it to `callback` when there is one. `format` is an FMT_COMPILE string:
/// every datagram is worth several lines, and reading a format anew each time would cost as much as
/// the rest of a line.
template <typename Format, typename... Args>
void logLine(const LogCallback& callback, const Format& format, const Args&... args) {
  [[maybe_unused]] const auto isSuspicious = [](const auto& argument) {
    if constexpr (std::is_convertible_v<decltype(argument), std::string_view>) {
      return holdsControl(argument);
    } else {
      return false;
    }
  };
  if (callback) {
    fmt::memory_buffer line;
    fmt::format_to(std::back_inserter(line), format, args...);
    if ((false || ... || isSuspicious(args))) {
      replaceControls(line);
    }
    callback({line.data(), line.size()});
  }
}

}  // namespace zk
