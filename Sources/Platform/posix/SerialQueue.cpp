#include "Platform/SerialQueue.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/BriefLock.h"
#include "Platform/Semaphore.h"
#include "Platform/Thread.h"

namespace zk {
namespace {

// A burst may leave the vectors large; beyond this many items their room is given back.
constexpr std::size_t keptCapacity = 1024;

// A submitter does so many batches of others' short work at most before it goes back to its own.
constexpr int mostBatchesInPlace = 4;

}  // namespace

struct SerialQueue::State {
  std::mutex lock;
  std::condition_variable wake;
  std::vector<Task> pending;    // guarded by lock
  std::size_t pendingLong = 0;  // guarded by lock: how many of them are for the worker only
  bool busy = false;            // guarded by lock: somebody is at work
  bool sleeping = false;        // guarded by lock: the worker waits to be woken
  bool ending = false;          // guarded by lock
  std::vector<Task> batch;      // belongs to whoever is at work
  std::thread worker;           // written once, before anybody else can see it

  void work() {
    auto guard = lockBriefly(lock);
    while (true) {
      while (busy || pending.empty()) {
        if (ending && !busy) {
          return;
        }
        sleeping = true;
        wake.wait(guard, [this] { return !sleeping; });
      }
      busy = true;
      runBatch(guard);
      busy = false;
    }
  }

  // By whoever is at work: runs all that is pending, without the lock, and clears it.
  void runBatch(std::unique_lock<std::mutex>& guard) {
    batch.swap(pending);
    pendingLong = 0;
    guard.unlock();
    for (Task& task : batch) {
      task();
      task = Task();  // what it captured goes now, not with the batch
    }
    batch.clear();
    if (batch.capacity() > keptCapacity) {
      std::vector<Task>().swap(batch);
    }
    guard = lockBriefly(lock);
  }

  // Under the lock. Whether the caller has to notify the worker once it has let go of the lock. A
  // submitter that is at work in its stead does that at its end.
  bool takeWakeUp() { return !busy && std::exchange(sleeping, false); }
};

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  state_->worker = startThread(label_, [state = state_] { state->work(); });
}

SerialQueue::~SerialQueue() {
  {
    const auto guard = lockBriefly(state_->lock);
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
    const auto guard = lockBriefly(state_->lock);
    state_->pending.push_back(std::move(task));
    ++state_->pendingLong;
    wake = state_->takeWakeUp();
  }
  if (wake) {
    state_->wake.notify_one();
  }
}

void SerialQueue::asyncShort(Task task) {
  {
    const auto guard = lockBriefly(state_->lock);
    state_->pending.push_back(std::move(task));
    if (state_->busy) {
      return;  // whoever is at work will come to it
    }
    state_->busy = true;
  }
  drainShortTasks();
}

bool SerialQueue::claimIfIdle() {
  const auto guard = lockBriefly(state_->lock);
  if (state_->busy || !state_->pending.empty()) {
    return false;
  }
  state_->busy = true;
  return true;
}

// By a submitter that is at work: goes on with what is queued as long as it may, and leaves the
// rest to the worker.
void SerialQueue::drainShortTasks() {
  bool wake = false;
  {
    auto guard = lockBriefly(state_->lock);
    for (int i = 0; i < mostBatchesInPlace; ++i) {
      if (state_->pending.empty() || state_->pendingLong > 0) {
        break;
      }
      state_->runBatch(guard);
    }
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
