#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/LogFile.h"
#include "Platform/Mutex.h"

namespace zk {

/// Writes log files on a thread of its own, the only one that waits for the disk. Lines reach their
/// file in the order in which they are appended, within 20 milliseconds while the disk keeps up. As
/// long as lines keep coming, no append has to wake the thread.
class LogWriter {
 public:
  /// How much memory a file may take while its disk stands still, in octets.
  static constexpr std::size_t maxPending = 4 << 20;

  /// Starts the thread. Throws std::system_error when there is none to be had.
  explicit LogWriter(const std::string& label);
  /// Writes what is pending, however long the disk takes.
  ~LogWriter();

  /// Adds a log at `path`, which must outlive the writer, and opens or creates its file; when that
  /// fails it is tried again later. To be called before the first append(). Returns the number by
  /// which append() knows the log.
  std::size_t open(const char* path, bool ignoresUmask = false);

  /// Adds a line, or several joined by line feeds, without the last line feed; each gets `prefix`
  /// in front. Any thread; never waits for the disk. While the disk is maxPending octets behind,
  /// lines are counted instead, and one line then tells how many.
  void append(std::size_t file, std::string_view lines, std::string_view prefix = {});

  /// Waits until all lines appended so far are in their files, at most for `limit`. Returns whether
  /// they are.
  bool flush(std::chrono::milliseconds limit);

 private:
  struct Pending {
    std::string lines;
    std::size_t lost = 0;  // lines
  };
  struct Target {
    LogFile file;
    std::string batch;
  };

  void run();
  void write() REQUIRES(lock_);
  bool hasPending() const REQUIRES(lock_);

  Mutex lock_;
  std::condition_variable_any changed_;
  std::vector<Pending> pending_ GUARDED_BY(lock_);  // by file
  bool isIdle_ GUARDED_BY(lock_) = false;           // the thread sleeps until it is woken
  bool isWriting_ GUARDED_BY(lock_) = false;
  bool ends_ GUARDED_BY(lock_) = false;
  std::deque<Target> targets_;  // by file; only the thread uses it once there are lines
  std::thread thread_;          // last: it uses the rest
};

}  // namespace zk
