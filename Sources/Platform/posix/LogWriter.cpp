// While lines come, the thread wakes by itself every few milliseconds and writes what is pending
// for all files. After a few turns without lines it sleeps until one wakes it.

#include "Platform/LogWriter.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "Platform/Thread.h"

namespace zk {
namespace {

// Long enough for hundreds of lines per write at full rate; together with the write itself, less
// than the 20 milliseconds that are promised.
constexpr std::chrono::milliseconds gatheringTime{18};

// A call's sound comes every 20 milliseconds: the thread stays awake for it.
constexpr int maxQuietTurns = 4;

// Larger buffers, which a slow disk makes necessary, are freed after use.
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

std::size_t LogWriter::open(const char* path, bool ignoresUmask) {
  const MutexLock guard(lock_);
  pending_.emplace_back();
  targets_.push_back({LogFile(path, ignoresUmask), {}});
  targets_.back().file.append({});  // which creates it
  return targets_.size() - 1;
}

void LogWriter::append(std::size_t file, std::string_view lines, std::string_view prefix) {
  bool wakes = false;
  {
    const MutexLock guard(lock_);
    auto& [pending, lost] = pending_[file];
    if (pending.size() + lines.size() > maxPending) {
      lost += static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')) + 1;
      return;
    }
    for (std::size_t end = 0; end != std::string_view::npos;) {
      end = lines.find('\n');
      pending.append(prefix).append(lines.substr(0, end)).push_back('\n');
      lines.remove_prefix(std::min(lines.size(), end + 1));
    }
    wakes = std::exchange(isIdle_, false);
  }
  if (wakes) {
    changed_.notify_all();
  }
}

bool LogWriter::flush(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const MutexLock guard(lock_);
  while (hasPending() || isWriting_) {
    if (changed_.wait_until(lock_, deadline) == std::cv_status::timeout) {
      return !hasPending() && !isWriting_;
    }
  }
  return true;
}

void LogWriter::run() {
  const MutexLock guard(lock_);
  for (int quietTurns = 0; !ends_ || hasPending(); ++quietTurns) {
    while (quietTurns >= maxQuietTurns && !hasPending() && !ends_) {
      isIdle_ = true;
      changed_.wait(lock_);
    }
    lock_.unlock();
    std::this_thread::sleep_for(gatheringTime);
    lock_.lock();
    if (hasPending()) {
      write();
      quietTurns = 0;
    }
  }
}

void LogWriter::write() {
  for (std::size_t i = 0; i < targets_.size(); ++i) {
    auto& [lines, lost] = pending_[i];
    if (lost > 0) {
      lines += fmt::format("{} lines LOST: the disk did not keep up\n", std::exchange(lost, 0));
    }
    targets_[i].batch.swap(lines);
  }
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
  changed_.notify_all();  // for flush(); costs nothing when nobody waits
}

bool LogWriter::hasPending() const {
  return std::any_of(pending_.begin(), pending_.end(),
                     [](const Pending& pending) { return !pending.lines.empty(); });
}

}  // namespace zk
