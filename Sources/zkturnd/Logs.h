#pragma once

#include <chrono>
#include <string_view>

#include "Platform/LogWriter.h"

namespace zk {

/// The three logs of the daemon. Every operation but flush() takes lines as LogCallback has it,
/// returns at once, and may be called on any thread.
class Logs {
 public:
  /// Opens the files, and starts the thread that writes them. Throws std::system_error when there
  /// is no thread to be had; a file that cannot be opened is not an error.
  Logs();

  /// /tmp/zkturnd.log: the daemon and its TURN service, with the time at which each line was
  /// reported.
  void appendDebugLog(std::string_view lines);
  /// /tmp/zkturnd-dp.log: every datagram to and from the proxy.
  void zkDPLog(std::string_view lines);
  /// /tmp/zk-egress.log: the search for the proxy's public address, with the date.
  void plog(std::string_view lines);

  /// Waits until all lines are in their files, or `limit` has passed.
  void flush(std::chrono::milliseconds limit) { writer_.flush(limit); }

 private:
  LogWriter writer_;
  const std::size_t debug_;
  const std::size_t dataPlane_;
  const std::size_t egress_;
};

}  // namespace zk
