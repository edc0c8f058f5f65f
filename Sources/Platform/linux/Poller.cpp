// epoll, level-triggered: what was reported and is still readable goes to the end of the system's
// list, which is what gives descriptors their turns. The timer is a descriptor of its own: a time
// limit would be set and taken back with every wait, and would not count a suspended night.

#include "Platform/Poller.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "Platform/posix/System.h"

namespace zk {
namespace {

constexpr std::size_t maxEvents = 64;

// Milliseconds, after which a timer that could not be set is tried again.
constexpr int timerLost = 1000;

}  // namespace

Poller::Poller() : poller_(epoll_create1(EPOLL_CLOEXEC)) {
  require(static_cast<bool>(poller_), "epoll_create1");
  wakeUp_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  require(static_cast<bool>(wakeUp_), "eventfd");
  timer_ = Descriptor(timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK));
  require(static_cast<bool>(timer_), "timerfd_create");
  add(wakeUp_.get());
  add(timer_.get());
}

void Poller::change(int descriptor, Interest from, Interest to) {
  epoll_event event{};
  event.events = (to.readable ? EPOLLIN : 0U) | (to.writable ? EPOLLOUT : 0U);
  event.data.fd = descriptor;
  // The system reports the end of a descriptor that is in its list whether it was asked to or not.
  const int operation = from == Interest() ? EPOLL_CTL_ADD
                        : to == Interest() ? EPOLL_CTL_DEL
                                           : EPOLL_CTL_MOD;
  require(epoll_ctl(poller_.get(), operation, descriptor, &event) == 0, "epoll_ctl");
}

void Poller::remove(int descriptor) {
  epoll_ctl(poller_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

void Poller::setTimer(std::chrono::nanoseconds delay) {
  using std::chrono::seconds;
  const auto fromNow = std::max(delay, std::chrono::nanoseconds(1));  // 0 would mean never
  const auto whole = std::chrono::floor<seconds>(fromNow);
  const itimerspec when{{}, {whole.count(), (fromNow - whole).count()}};
  isTimerLost_ = timerfd_settime(timer_.get(), 0, &when, nullptr) != 0;
}

Poller::Events Poller::wait(bool mayWait, std::vector<int>& ready, std::vector<int>& writable) {
  const int timeout = !mayWait ? 0 : isTimerLost_ ? timerLost : -1;
  std::array<epoll_event, maxEvents> events;
  const int count = epoll_wait(poller_.get(), events.data(), maxEvents, timeout);
  ready.clear();
  writable.clear();
  Events others{.hasTimerGone = isTimerLost_};
  for (int i = 0; i < count; ++i) {
    const auto [occurred, data] = events[static_cast<std::size_t>(i)];
    const int descriptor = data.fd;
    if (descriptor == wakeUp_.get() || descriptor == timer_.get()) {
      (descriptor == timer_.get() ? others.hasTimerGone : others.wasWoken) = true;
      std::uint64_t counter = 0;
      [[maybe_unused]] const ssize_t got = read(descriptor, &counter, sizeof counter);
      continue;
    }
    if ((occurred & EPOLLOUT) != 0) {
      writable.push_back(descriptor);
    }
    if ((occurred & EPOLLIN) != 0 || (occurred & EPOLLOUT) == 0) {  // or an end, or an error
      ready.push_back(descriptor);
    }
  }
  return others;
}

void Poller::wake() {
  // An event that is lost would have a stop wait for the next timer.
  const std::uint64_t one = 1;
  for (int tries = 0; tries < 10 && write(wakeUp_.get(), &one, sizeof one) < 0; ++tries) {
  }
}

}  // namespace zk
