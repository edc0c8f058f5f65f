#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "Platform/Clock.h"
#include "Platform/StopSignal.h"
#include "Platform/Thread.h"

namespace zk {

/// Raises a stop signal when one step of several takes too long, whatever it waits for. One thread
/// at a time.
class StepLimit {
 public:
  /// The first step begins. Throws std::system_error.
  explicit StepLimit(std::chrono::seconds limit)
      : limit_(limit), thread_(startThread("zkturn.limit", [this] { watch(); })) {}
  ~StepLimit() {
    finish();
    thread_.join();
  }

  /// The next step begins.
  void restart() { end_ = SteadyClock::now() + limit_; }
  /// The last one is through: nothing is raised any more.
  void finish() { isOver_.raise(); }
  const StopSignal* signal() const { return &signal_; }

 private:
  void watch() {
    // The end may have moved while it was waited for.
    while (SteadyClock::now() < end_.load()) {
      waitFor(-1, 0, end_, &isOver_);
      if (isOver_.isRaised()) {
        return;
      }
    }
    signal_.raise();
  }

  const std::chrono::seconds limit_;
  StopSignal signal_;
  StopSignal isOver_;
  std::atomic<Deadline> end_{SteadyClock::now() + limit_};
  std::thread thread_;  // last: it uses the rest
};

}  // namespace zk
