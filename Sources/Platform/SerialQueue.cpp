#include "Platform/SerialQueue.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Semaphore.h"
#include "Platform/Thread.h"

namespace zk {
namespace {

// A burst may leave the vectors large; beyond this many items their room is given back.
constexpr std::size_t keptCapacity = 1024;

void clearKeepingLittle(std::vector<Task>& tasks) {
  tasks.clear();
  if (tasks.capacity() > keptCapacity) {
    std::vector<Task>().swap(tasks);
  }
}

}  // namespace

struct SerialQueue::State {
  std::mutex lock;
  std::condition_variable wake;
  std::vector<Task> pending;  // guarded by lock
  bool busy = false;      // guarded by lock: the worker, or a submitter in its stead, is at work
  bool sleeping = false;  // guarded by lock: the worker waits to be woken
  bool ending = false;    // guarded by lock
  std::thread worker;     // written once, before anybody else can see it

  void run() {
    std::vector<Task> batch;
    std::unique_lock guard(lock);
    while (true) {
      while (busy || pending.empty()) {
        if (ending && !busy) {
          return;
        }
        sleeping = true;
        wake.wait(guard, [this] { return !sleeping; });
      }
      batch.swap(pending);
      busy = true;
      guard.unlock();
      for (Task& task : batch) {
        task();
        task = Task();  // what it captured goes now, not with the batch
      }
      clearKeepingLittle(batch);
      guard.lock();
      busy = false;
    }
  }

  // Under the lock. Whether the caller has to notify the worker once it has let go of the lock. A
  // submitter that is at work in its stead wakes it when that is done.
  bool takeWakeUp() { return !busy && std::exchange(sleeping, false); }
};

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  state_->worker = startThread(label_, [state = state_] { state->run(); });
}

SerialQueue::~SerialQueue() {
  {
    const std::lock_guard guard(state_->lock);
    state_->ending = true;
    state_->takeWakeUp();
  }
  state_->wake.notify_one();
  if (state_->worker.get_id() == std::this_thread::get_id()) {
    state_->worker.detach();
  } else {
    state_->worker.join();
  }
}

void SerialQueue::async(Task task) {
  bool wake = false;
  {
    const std::lock_guard guard(state_->lock);
    state_->pending.push_back(std::move(task));
    wake = state_->takeWakeUp();
  }
  if (wake) {
    state_->wake.notify_one();
  }
}

bool SerialQueue::claimIfIdle() {
  const std::lock_guard guard(state_->lock);
  if (state_->busy || !state_->pending.empty()) {
    return false;
  }
  state_->busy = true;
  return true;
}

void SerialQueue::releaseClaim() {
  bool wake = false;
  {
    const std::lock_guard guard(state_->lock);
    state_->busy = false;
    wake = (!state_->pending.empty() || state_->ending) && state_->takeWakeUp();
  }
  if (wake) {
    state_->wake.notify_one();
  }
}

void SerialQueue::sync(const std::function<void()>& work) {
  Semaphore done;
  async([&] {
    work();
    done.signal();
  });
  done.wait();
}

}  // namespace zk
