#include "zkturnd/DebugLog.h"

#include <thread>

#include <unistd.h>

#include "Platform/BriefLock.h"
#include "Platform/Clock.h"
#include "Platform/LogFile.h"

namespace zk {
namespace {

// Long enough that at full rate a write carries hundreds of lines, short enough that somebody who
// watches the file does not notice.
constexpr std::chrono::milliseconds gatheringTime{10};

// A disk that hangs must not let the log fill the memory.
constexpr std::size_t mostPending = 4 << 20;
constexpr std::size_t keptCapacity = 1 << 18;

}  // namespace

DebugLog::DebugLog(const char* path) : file_(openLogFile(path, LogPosition::endAtOpening)) {}

DebugLog::~DebugLog() {
  flush();
  if (file_ >= 0) {
    close(file_);
  }
}

void DebugLog::appendDebugLog(std::string_view message) {
  if (file_ < 0) {
    return;
  }
  char stamp[timestampLength + 1];
  writeTimestamp(stamp, wallClockMicroseconds());
  stamp[timestampLength] = ' ';
  std::string repaired;
  if (holdsControl(message)) {
    repaired = message;
    keepOnOneLine(repaired);
    message = repaired;
  }
  bool schedule = false;
  {
    auto guard = lockBriefly(lock_);
    hasRoom_.wait(guard, [this] { return pending_.size() < mostPending; });
    pending_.append(stamp, sizeof stamp).append(message) += '\n';
    schedule = !isScheduled_;
    isScheduled_ = true;
  }
  if (schedule) {
    debugLogQueue_.async([this] {
      std::this_thread::sleep_for(gatheringTime);
      writeBatch();
    });
  }
}

void DebugLog::flush() {
  debugLogQueue_.sync([this] { writeBatch(); });
}

void DebugLog::writeBatch() {
  {
    const auto guard = lockBriefly(lock_);
    batch_.swap(pending_);
    isScheduled_ = false;
  }
  hasRoom_.notify_all();
  // A full disk loses lines. There is nobody to tell.
  [[maybe_unused]] const ssize_t written = write(file_, batch_.data(), batch_.size());
  batch_.clear();
  if (batch_.capacity() > keptCapacity) {
    std::string().swap(batch_);
  }
}

}  // namespace zk
