#pragma once

#include <chrono>
#include <condition_variable>
#include <thread>

#include "Platform/Clock.h"
#include "Platform/Mutex.h"
#include "Platform/StopSignal.h"

namespace zk {

/// Raises a stop signal when one step of several takes too long, whatever it waits for. One thread
/// at a time.
class StepLimit {
 public:
  /// The first step begins. Throws std::system_error.
  explicit StepLimit(std::chrono::seconds limit);
  ~StepLimit();
  StepLimit(const StepLimit&) = delete;
  StepLimit& operator=(const StepLimit&) = delete;

  /// The next step begins.
  void restart();
  /// The last one is through: nothing is raised any more.
  void finish();
  const StopSignal* signal() const { return &signal_; }

 private:
  using Clock = SteadyClock;

  void watch();

  const std::chrono::seconds limit_;
  StopSignal signal_;
  Mutex lock_;
  std::condition_variable_any changed_;
  Clock::time_point end_ GUARDED_BY(lock_);
  bool isOver_ GUARDED_BY(lock_) = false;
  std::thread thread_;
};

}  // namespace zk
