// The thread sleeps until it is told of a first line, gathers for some milliseconds, takes what all
// files have pending and writes it. While lines keep coming nobody has to wake it.

#include "Platform/LogWriter.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "Platform/Thread.h"

namespace zk {
namespace {

using Clock = std::chrono::steady_clock;

// Long enough that at full rate a write carries hundreds of lines, short enough that somebody who
// watches the file does not notice.
constexpr std::chrono::milliseconds gatheringTime{10};

// A buffer that a slow disk made large is not kept.
constexpr std::size_t keptCapacity = 1 << 18;

}  // namespace

LogWriter::LogWriter(const std::string& label) : thread_(startThread(label, [this] { run(); })) {}

LogWriter::~LogWriter() {
  {
    const MutexLock guard(lock_);
    ends_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

std::size_t LogWriter::open(const char* path, LogFileMode mode) {
  const MutexLock guard(lock_);
  pending_.emplace_back();
  targets_.push_back({LogFile(path, mode), {}});
  targets_.back().file.append({});  // which creates it
  return targets_.size() - 1;
}

void LogWriter::append(std::size_t file, std::string_view lines) {
  bool wakes = false;
  {
    const MutexLock guard(lock_);
    Pending& pending = pending_[file];
    if (pending.lines.size() + lines.size() > maxPending) {
      pending.lost += static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n'));
      return;
    }
    pending.lines += lines;
    wakes = std::exchange(isIdle_, false);
  }
  if (wakes) {
    changed_.notify_all();
  }
}

bool LogWriter::flush(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  const MutexLock guard(lock_);
  ++flushing_;
  changed_.notify_all();
  while ((hasPending() || isWriting_) &&
         changed_.wait_until(lock_, deadline) != std::cv_status::timeout) {
  }
  --flushing_;
  return !hasPending() && !isWriting_;
}

void LogWriter::run() {
  const MutexLock guard(lock_);
  while (true) {
    while (!hasPending() && !ends_) {
      isIdle_ = true;
      changed_.wait(lock_);
    }
    if (!hasPending()) {
      return;
    }
    const auto gathered = Clock::now() + gatheringTime;
    while (flushing_ == 0 && !ends_ &&
           changed_.wait_until(lock_, gathered) != std::cv_status::timeout) {
    }
    takeBatches();
    isWriting_ = true;
    lock_.unlock();
    for (Target& target : targets_) {
      if (!target.batch.empty()) {
        target.file.append(target.batch);
        target.batch.clear();
      }
      if (target.batch.capacity() > keptCapacity) {
        std::string().swap(target.batch);
      }
    }
    lock_.lock();
    isWriting_ = false;
    changed_.notify_all();
  }
}

void LogWriter::takeBatches() {
  for (std::size_t i = 0; i < targets_.size(); ++i) {
    auto& [lines, lost] = pending_[i];
    if (lost > 0) {
      lines += fmt::format("{} lines LOST: the disk did not keep up\n", std::exchange(lost, 0));
    }
    targets_[i].batch.swap(lines);
  }
}

bool LogWriter::hasPending() const {
  return std::any_of(pending_.begin(), pending_.end(),
                     [](const Pending& pending) { return !pending.lines.empty(); });
}

}  // namespace zk
