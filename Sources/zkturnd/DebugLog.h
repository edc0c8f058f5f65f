#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>

#include "Platform/SerialQueue.h"

namespace zk {

/// The debug log: one line per event with the time at which it was reported, in the order of
/// reporting, added to what the file holds already.
///
/// Two lines per relayed datagram come by here. So a line is formatted into the batch that is being
/// gathered, and the queue writes whole batches, each a few milliseconds after its first line.
class DebugLog {
 public:
  /// Opens `path`, creating it if need be. Without the file, logging does nothing.
  explicit DebugLog(const char* path);
  /// Writes what is pending.
  ~DebugLog();
  DebugLog(const DebugLog&) = delete;
  DebugLog& operator=(const DebugLog&) = delete;

  /// Adds one line. Any thread. Returns at once, unless the disk is megabytes behind.
  void appendDebugLog(std::string_view message);

  /// Returns when every line of before has been written.
  void flush();

 private:
  void writeBatch();

  const int file_;  // -1 when it could not be opened
  std::mutex lock_;
  std::condition_variable hasRoom_;
  std::string pending_;       // guarded by lock_
  bool isScheduled_ = false;  // guarded by lock_: a batch is on its way to the queue
  std::string batch_;         // the queue's
  SerialQueue debugLogQueue_{"zk.turnd.debuglog"};  // last, so that it goes first
};

}  // namespace zk
