#include "Platform/EventLoop.h"

#include <algorithm>

namespace zk {

void EventLoop::watch(int descriptor, Source& source) {
  poller_.add(descriptor);
  sources_[descriptor] = {&source, {.readable = true}};
}

void EventLoop::setInterest(int descriptor, Interest interest) {
  Watched& watched = sources_.at(descriptor);
  if (watched.interest != interest) {
    poller_.change(descriptor, watched.interest, interest);
    watched.interest = interest;
  }
}

void EventLoop::unwatch(int descriptor) {
  if (sources_.erase(descriptor) > 0) {
    poller_.remove(descriptor);
    // The number may be given to a new socket before the round is over.
    std::replace(ready_.begin(), ready_.end(), descriptor, -1);
    std::replace(writable_.begin(), writable_.end(), descriptor, -1);
  }
}

EventLoop::TimerID EventLoop::after(std::chrono::nanoseconds delay, Task task) {
  const TimerID timer{clock_() + static_cast<std::uint64_t>(delay.count()), ++timersMade_};
  timers_.emplace(timer, std::move(task));
  return timer;
}

void EventLoop::cancel(TimerID timer) {
  timers_.erase(timer);
}

void EventLoop::post(Task task) {
  bool wasEmpty = false;
  {
    const MutexLock guard(lock_);
    wasEmpty = posted_.empty();
    posted_.push_back(std::move(task));
  }
  if (wasEmpty) {
    poller_.wake();
  }
}

void EventLoop::run() {
  while (!stopping_) {
    turn(true);
  }
}

void EventLoop::stop() {
  stopping_ = true;
  poller_.wake();
}

void EventLoop::turn(bool mayWait) {
  poller_.wait(mayWait ? untilNextTimer() : std::chrono::nanoseconds::zero(), ready_, writable_);
  for (std::size_t i = 0; i < ready_.size() && !stopping_; ++i) {
    const auto found = sources_.find(ready_[i]);
    if (found == sources_.end()) {
      continue;
    }
    const auto [source, interest] = found->second;
    if (interest.writable && !interest.readable) {  // a descriptor that failed while it was full
      source->onWritable();
    } else if (interest != Interest()) {
      source->onReadable();
    }
  }
  for (std::size_t i = 0; i < writable_.size() && !stopping_; ++i) {
    const auto found = sources_.find(writable_[i]);
    if (found != sources_.end() && found->second.interest.writable) {
      found->second.source->onWritable();
    }
  }
  ready_.clear();
  writable_.clear();
  runDueTimers();
  runPosted();
  if (endOfRound_) {
    endOfRound_();
  }
}

// Only those that were due when the round came to them: a timer that sets itself anew for now must
// not keep the descriptors from their turn.
void EventLoop::runDueTimers() {
  if (timers_.empty()) {
    return;
  }
  const TimerID last{clock_(), timersMade_};
  while (!timers_.empty() && timers_.begin()->first <= last && !stopping_) {
    const auto timer = timers_.extract(timers_.begin());
    timer.mapped()();
  }
}

void EventLoop::runPosted() {
  std::vector<Task> tasks;
  {
    const MutexLock guard(lock_);
    tasks.swap(posted_);
  }
  for (const Task& task : tasks) {
    if (stopping_) {
      return;
    }
    task();
  }
}

// Negative for ever.
std::chrono::nanoseconds EventLoop::untilNextTimer() const {
  if (timers_.empty()) {
    return std::chrono::nanoseconds(-1);
  }
  const std::uint64_t due = timers_.begin()->first.first;
  const std::uint64_t now = clock_();
  return std::chrono::nanoseconds(due > now ? due - now : 0);
}

}  // namespace zk
