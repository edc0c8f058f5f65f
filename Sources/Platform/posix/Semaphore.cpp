#include "Platform/Semaphore.h"

namespace zk {

void Semaphore::signal() {
  // Notified under the lock: the waiter may destroy the semaphore as soon as it has it.
  const std::lock_guard guard(lock_);
  ++count_;
  signalled_.notify_one();
}

void Semaphore::wait() {
  std::unique_lock guard(lock_);
  signalled_.wait(guard, [this] { return count_ > 0; });
  --count_;
}

bool Semaphore::waitFor(std::chrono::nanoseconds limit) {
  std::unique_lock guard(lock_);
  if (!signalled_.wait_for(guard, limit, [this] { return count_ > 0; })) {
    return false;
  }
  --count_;
  return true;
}

}  // namespace zk
