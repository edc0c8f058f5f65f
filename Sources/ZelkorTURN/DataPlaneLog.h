#pragma once

#include <iterator>
#include <string_view>

#include <fmt/compile.h>
#include <fmt/format.h>

namespace zk {

/// The log of the data plane, /tmp/zkturnd-dp.log: one line per event, without a time stamp, in the
/// file when the call returns. Any thread. Its own failures are nobody's business.
namespace DataPlaneLog {

/// Appends `text`, which ends in a line feed, in one write.
void append(std::string_view text);

/// Formats one line, with an FMT_COMPILE string, and appends it.
template <typename Format, typename... Args>
void line(const Format& format, const Args&... args) {
  fmt::memory_buffer text;
  fmt::format_to(std::back_inserter(text), format, args...);
  text.push_back('\n');
  append({text.data(), text.size()});
}

}  // namespace DataPlaneLog
}  // namespace zk
