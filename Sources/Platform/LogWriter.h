#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/LogFile.h"
#include "Platform/Mutex.h"

namespace zk {

/// Writes log files on a thread of its own, which is the only one that waits for the disk. Lines
/// reach their file in the order of appending, within 20 milliseconds while the disk keeps up.
class LogWriter {
 public:
  /// One log file.
  class File {
   public:
    /// Adds whole lines, line feeds included. Any thread; never waits for the disk. While the disk
    /// is maxPending octets behind, lines are counted instead, and one line tells how many.
    void append(std::string_view lines);

   private:
    friend class LogWriter;
    File(LogWriter& writer, const char* path, LogFileMode mode);

    LogWriter& writer_;
    LogFile file_;        // the writer's thread only
    std::string batch_;   // the writer's thread only
    std::string pending_; // guarded by the writer's lock
    std::uint64_t lost_ = 0;  // lines; guarded by the writer's lock
  };

  /// How much memory a file may take while its disk stands still.
  static constexpr std::size_t maxPending = 4 << 20;

  /// Starts the thread. Throws std::system_error when there is none to be had.
  explicit LogWriter(const std::string& label);
  /// Writes what is pending, however long the disk takes.
  ~LogWriter();
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  /// A log at `path`, which must outlive the writer. Opened, and created if need be, when its first
  /// line is written; without the file logging does nothing.
  File& open(const char* path, LogFileMode mode = {});

  /// Waits until all lines of before are in their files, or `limit` has passed. Whether they are.
  bool flush(std::chrono::milliseconds limit);

 private:
  void run();
  bool writeRound();
};

}  // namespace zk
