#include "Loopback/EventLoop.h"

#include <array>
#include <cerrno>
#include <climits>
#include <future>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "Platform/Thread.h"

namespace zk::loopback {

using Clock = std::chrono::steady_clock;

struct EventLoop::State {
  int epoll = -1;
  int wakeUp = -1;

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
  int millisecondsToNextTimer() const;
  void runTimers();
  bool runQueued();
  void wake() const;
};

EventLoop::EventLoop(const std::string& label) : state_(std::make_unique<State>()) {
  state_->epoll = epoll_create1(EPOLL_CLOEXEC);
  state_->wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (state_->epoll < 0 || state_->wakeUp < 0) {
    throw std::system_error(errno, std::generic_category(), "event loop");
  }
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = state_->wakeUp;
  epoll_ctl(state_->epoll, EPOLL_CTL_ADD, state_->wakeUp, &event);
  state_->thread = startThread(label, [state = state_.get()] { state->run(); });
}

EventLoop::~EventLoop() {
  stop();
  close(state_->epoll);
  close(state_->wakeUp);
}

void EventLoop::State::wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(wakeUp, &one, sizeof one);
}

int EventLoop::State::millisecondsToNextTimer() const {
  if (timers.empty()) {
    return -1;
  }
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(timers.begin()->first - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
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
  std::array<epoll_event, 64> events;
  while (runQueued()) {
    runTimers();
    const int ready = epoll_wait(epoll, events.data(), static_cast<int>(events.size()),
                                 millisecondsToNextTimer());
    for (int i = 0; i < ready; ++i) {
      const int descriptor = events[static_cast<std::size_t>(i)].data.fd;
      if (descriptor == wakeUp) {
        std::uint64_t count;
        [[maybe_unused]] const auto taken = read(wakeUp, &count, sizeof count);
        continue;
      }
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
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  if (epoll_ctl(state_->epoll, EPOLL_CTL_ADD, descriptor, &event) < 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

void EventLoop::unwatch(int descriptor) {
  state_->handlers.erase(descriptor);
  epoll_ctl(state_->epoll, EPOLL_CTL_DEL, descriptor, nullptr);
}

void EventLoop::after(std::chrono::milliseconds delay, std::function<void()> action) {
  if (delay.count() <= 0) {
    action();
    return;
  }
  state_->timers.emplace(Clock::now() + delay, std::move(action));
}

void EventLoop::sync(const std::function<void()>& work) {
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
      state_->wake();
    }
  }
  done.get();
}

void EventLoop::stop() {
  {
    const std::lock_guard guard(state_->lock);
    state_->stopping = true;
    state_->wake();
  }
  const std::lock_guard guard(state_->joining);
  if (state_->thread.joinable()) {
    state_->thread.join();
  }
}

}  // namespace zk::loopback
