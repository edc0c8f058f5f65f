#include "Loopback/EventLoop.h"

#include <algorithm>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Platform/Poller.h"
#include "Platform/Thread.h"

namespace zk::loopback {

using Clock = std::chrono::steady_clock;

struct EventLoop::State {
  Poller poller;

  // The loop's thread only.
  std::unordered_map<int, std::shared_ptr<std::function<void()>>> handlers;
  std::multimap<Clock::time_point, std::function<void()>> timers;

  std::mutex lock;
  std::vector<std::packaged_task<void()>> queued;  // guarded by lock
  bool stopping = false;                           // guarded by lock
  bool ended = false;                              // guarded by lock

  std::mutex afterEnd;  // serialises sync() once there is no thread any more
  std::mutex joining;
  std::thread thread;  // guarded by joining

  void run();
  std::chrono::nanoseconds untilNextTimer() const;
  void runTimers();
  bool runQueued();
};

EventLoop::EventLoop(const std::string& label) : state_(std::make_unique<State>()) {
  state_->thread = startThread(label, [state = state_.get()] { state->run(); });
}

EventLoop::~EventLoop() {
  stop();
}

std::chrono::nanoseconds EventLoop::State::untilNextTimer() const {
  using std::chrono::nanoseconds;
  return timers.empty() ? nanoseconds(-1)
                        : std::max<nanoseconds>(timers.begin()->first - Clock::now(), {});
}

void EventLoop::State::runTimers() {
  const auto now = Clock::now();
  while (!timers.empty() && timers.begin()->first <= now) {
    const auto action = timers.extract(timers.begin());
    action.mapped()();
  }
}

/// Whether the loop goes on.
bool EventLoop::State::runQueued() {
  std::vector<std::packaged_task<void()>> batch;
  {
    const std::lock_guard guard(lock);
    batch.swap(queued);
    if (batch.empty() && stopping) {
      ended = true;
      return false;
    }
  }
  for (auto& task : batch) {
    task();
  }
  return true;
}

void EventLoop::State::run() {
  std::vector<int> ready;
  while (runQueued()) {
    runTimers();
    poller.wait(untilNextTimer(), ready);
    for (const int descriptor : ready) {
      // A handler earlier in this batch may have ended this watch, or this one may end its own.
      if (const auto found = handlers.find(descriptor); found != handlers.end()) {
        const auto handler = found->second;
        (*handler)();
      }
    }
  }
}

void EventLoop::watch(int descriptor, std::function<void()> handler) {
  state_->handlers[descriptor] = std::make_shared<std::function<void()>>(std::move(handler));
  state_->poller.add(descriptor);
}

void EventLoop::unwatch(int descriptor) {
  state_->handlers.erase(descriptor);
  state_->poller.remove(descriptor);
}

void EventLoop::after(std::chrono::milliseconds delay, std::function<void()> action) {
  if (delay.count() <= 0) {
    action();
    return;
  }
  state_->timers.emplace(Clock::now() + delay, std::move(action));
}

void EventLoop::sync(const std::function<void()>& work) const {
  std::packaged_task<void()> task(work);
  auto done = task.get_future();
  {
    std::unique_lock guard(state_->lock);
    if (state_->ended) {
      guard.unlock();
      const std::lock_guard alone(state_->afterEnd);
      task();
    } else {
      state_->queued.push_back(std::move(task));
      state_->poller.wake();
    }
  }
  done.get();
}

void EventLoop::stop() {
  {
    const std::lock_guard guard(state_->lock);
    state_->stopping = true;
    state_->poller.wake();
  }
  const std::lock_guard guard(state_->joining);
  if (state_->thread.joinable()) {
    state_->thread.join();
  }
}

}  // namespace zk::loopback
