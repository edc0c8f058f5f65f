#include "Platform/EventLoop.h"

#include <algorithm>
#include <utility>

namespace zk {

void EventLoop::watch(int descriptor, Source& source) {
  poller_.add(descriptor);
  const auto place = static_cast<std::size_t>(descriptor);
  sources_.resize(std::max(sources_.size(), place + 1));
  sources_[place] = {&source, {.readable = true}};
}

void EventLoop::setInterest(int descriptor, Interest interest) {
  Watched& watched = sources_[static_cast<std::size_t>(descriptor)];
  if (watched.interest != interest) {
    poller_.change(descriptor, watched.interest, interest);
    watched.interest = interest;
  }
}

void EventLoop::unwatch(int descriptor) {
  const auto place = static_cast<std::size_t>(descriptor);
  if (place >= sources_.size()) {
    return;
  }
  const auto [source, interest] = std::exchange(sources_[place], {});
  if (source != nullptr) {
    if (interest != Interest()) {
      poller_.remove(descriptor);
    }
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
  setTimer();
  const auto others = poller_.wait(mayWait, ready_, writable_);
  if (others.hasTimerGone) {
    wakesAt_ = never;
  }
  for (std::size_t i = 0; i < ready_.size() && !stopping_; ++i) {
    if (ready_[i] < 0) {
      continue;
    }
    const auto [source, interest] = sources_[static_cast<std::size_t>(ready_[i])];
    if (interest.writable && !interest.readable) {  // a descriptor that failed while it was full
      source->onWritable();
    } else if (interest != Interest()) {
      source->onReadable();
    }
  }
  for (std::size_t i = 0; i < writable_.size() && !stopping_; ++i) {
    if (writable_[i] >= 0) {
      const auto [source, interest] = sources_[static_cast<std::size_t>(writable_[i])];
      if (interest.writable) {
        source->onWritable();
      }
    }
  }
  ready_.clear();
  writable_.clear();
  runDueTimers();
  if (others.wasWoken) {
    runPosted();
  }
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

// Only an earlier one is news to the poller. One that was cancelled wakes the loop for nothing.
void EventLoop::setTimer() {
  const std::uint64_t due = timers_.empty() ? never : timers_.begin()->first.first;
  if (due < wakesAt_) {
    wakesAt_ = due;
    const std::uint64_t now = clock_();
    poller_.setTimer(std::chrono::nanoseconds(due > now ? due - now : 0));
  }
}

}  // namespace zk
