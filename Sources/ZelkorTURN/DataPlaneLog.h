#pragma once

#include <iterator>
#include <string_view>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "Platform/LogFile.h"

namespace zk {

/// Appends `text`, which ends in a line feed, to the log of the data plane, /tmp/zkturnd-dp.log, in
/// one write; it is in the file on return. Any thread. The log's own failures are nobody's
/// business.
void appendToDataPlaneLog(std::string_view text);

/// Writes one line to the log of the data plane: no time stamp, one line per event. `format` is an
/// FMT_COMPILE string.
template <typename Format, typename... Args>
void zkDPLog(const Format& format, const Args&... args) {
  fmt::memory_buffer line;
  fmt::format_to(std::back_inserter(line), format, args...);
  keepOnOneLine({line.data(), line.size()});
  line.push_back('\n');
  appendToDataPlaneLog({line.data(), line.size()});
}

}  // namespace zk
