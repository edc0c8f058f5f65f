#pragma once

#include <string_view>
#include <type_traits>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "Platform/LogCallback.h"
#include "Platform/LogFile.h"

namespace zk {

/// Appends `lines`, each of which ends in a line feed, to the log of the data plane,
/// /tmp/zkturnd-dp.log, in one write; they are in the file on return. Any thread. The log's own
/// failures are nobody's business.
void appendToDataPlaneLog(std::string_view lines);

/// The lines that one event is worth, so that they cost one write: no time stamp, one line each.
class DataPlaneLines {
 public:
  /// `format` is an FMT_COMPILE string.
  template <typename Format, typename... Args>
  void add(const Format& format, const Args&... args) {
    const std::size_t at = text_.size();
    appendFormatted(text_, format, args...);
    if ((... || breaksLine(args))) {
      keepOnOneLine({text_.data() + at, text_.size() - at});
    }
    text_.push_back('\n');
  }
  void write() const { appendToDataPlaneLog({text_.data(), text_.size()}); }

 private:
  template <typename Arg>
  static bool breaksLine(const Arg& argument) {
    if constexpr (std::is_convertible_v<const Arg&, std::string_view>) {
      return holdsControl(argument);
    }
    return false;
  }

  fmt::memory_buffer text_;
};

/// Writes one line to the log of the data plane.
template <typename Format, typename... Args>
void zkDPLog(const Format& format, const Args&... args) {
  DataPlaneLines line;
  line.add(format, args...);
  line.write();
}

}  // namespace zk
