#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zk {

/// A counting semaphore that starts at 0.
class Semaphore {
 public:
  void signal();
  void wait();
  /// Whether it was signalled before `limit` had passed.
  bool waitFor(std::chrono::nanoseconds limit);

 private:
  std::mutex lock_;
  std::condition_variable signalled_;
  unsigned count_ = 0;  // guarded by lock_
};

}  // namespace zk
