#pragma once

#include <functional>
#include <iterator>
#include <string_view>

#include <fmt/compile.h>
#include <fmt/format.h>

namespace zk {

/// Takes one line of a diagnostic log, without its line feed. Absent means no logging. The line
/// lives as long as the call.
using LogCallback = std::function<void(std::string_view)>;

/// Formats a line, in place for the usual lengths, and hands it to `callback` when there is one.
/// `format` is an FMT_COMPILE string: every datagram is worth several lines, and reading a format
/// anew each time would cost as much as the rest of the line.
template <typename Format, typename... Args>
void logLine(const LogCallback& callback, const Format& format, const Args&... args) {
  if (callback) {
    fmt::memory_buffer line;
    fmt::format_to(std::back_inserter(line), format, args...);
    callback({line.data(), line.size()});
  }
}

}  // namespace zk
