#include "zkturn/StepLimit.h"

#include "Platform/Thread.h"

namespace zk {

StepLimit::StepLimit(std::chrono::seconds limit)
    : limit_(limit),
      end_(Clock::now() + limit),
      thread_(startThread("zkturn.limit", [this] { watch(); })) {}

StepLimit::~StepLimit() {
  finish();
  thread_.join();
}

void StepLimit::finish() {
  const MutexLock guard(lock_);
  isOver_ = true;
  changed_.notify_all();
}

void StepLimit::restart() {
  const MutexLock guard(lock_);
  end_ = Clock::now() + limit_;
}

void StepLimit::watch() {
  const MutexLock guard(lock_);
  while (!isOver_) {
    if (Clock::now() >= end_) {
      signal_.raise();
      return;
    }
    changed_.wait_until(lock_, Clock::time_point(end_));
  }
}

}  // namespace zk
