// kqueue, level-triggered: what was reported and is still readable goes to the end of the system's
// list, which is what gives descriptors their turns.

#include "Platform/Poller.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include <fcntl.h>
#include <sys/event.h>

#include "Platform/posix/System.h"

namespace zk {
namespace {

constexpr int maxEvents = 64;

// The one event of wake(), and the one timer. Their numbers are not those of descriptors.
constexpr std::uintptr_t wakeUpEvent = 0;
constexpr std::uintptr_t timerEvent = 0;

bool change(int queue, std::uintptr_t which, int filter, int flags, unsigned filterFlags = 0,
            std::intptr_t data = 0) {
  struct kevent event {};
  EV_SET(&event, which, static_cast<std::int16_t>(filter), static_cast<std::uint16_t>(flags),
         filterFlags, data, nullptr);
  return kevent(queue, &event, 1, nullptr, 0, nullptr) == 0;
}

}  // namespace

Poller::Poller() : poller_(kqueue()) {
  require(static_cast<bool>(poller_), "kqueue");
  fcntl(poller_.get(), F_SETFD, FD_CLOEXEC);
  require(zk::change(poller_.get(), wakeUpEvent, EVFILT_USER, EV_ADD | EV_CLEAR), "kevent");
}

void Poller::change(int descriptor, Interest from, Interest to) {
  const auto set = [&](int filter, bool was, bool is) {
    const auto which = static_cast<std::uintptr_t>(descriptor);
    require(was == is || zk::change(poller_.get(), which, filter, is ? EV_ADD : EV_DELETE),
            "kevent");
  };
  set(EVFILT_READ, from.readable, to.readable);
  set(EVFILT_WRITE, from.writable, to.writable);
}

void Poller::remove(int descriptor) {
  for (const int filter : {EVFILT_READ, EVFILT_WRITE}) {
    zk::change(poller_.get(), static_cast<std::uintptr_t>(descriptor), filter, EV_DELETE);
  }
}

void Poller::setTimer(std::chrono::nanoseconds delay) {
  isTimerLost_ = !zk::change(poller_.get(), timerEvent, EVFILT_TIMER, EV_ADD | EV_ONESHOT,
                             NOTE_NSECONDS | NOTE_MACH_CONTINUOUS_TIME,
                             std::max<std::intptr_t>(delay.count(), 1));
}

Poller::Events Poller::wait(bool mayWait, std::vector<int>& ready, std::vector<int>& writable) {
  const timespec timeout{mayWait ? 1 : 0, 0};  // then a timer that could not be set is tried again
  std::array<struct kevent, maxEvents> events;
  const int count = kevent(poller_.get(), nullptr, 0, events.data(), maxEvents,
                           mayWait && !isTimerLost_ ? nullptr : &timeout);
  ready.clear();
  writable.clear();
  Events others{.hasTimerGone = isTimerLost_};
  for (int i = 0; i < count; ++i) {
    const struct kevent& event = events[static_cast<std::size_t>(i)];
    if (event.filter == EVFILT_READ) {
      ready.push_back(static_cast<int>(event.ident));
    } else if (event.filter == EVFILT_WRITE) {
      writable.push_back(static_cast<int>(event.ident));
    } else if (event.filter == EVFILT_TIMER) {
      others.hasTimerGone = true;
    } else {
      others.wasWoken = true;
    }
  }
  return others;
}

void Poller::wake() {
  zk::change(poller_.get(), wakeUpEvent, EVFILT_USER, 0, NOTE_TRIGGER);
}

}  // namespace zk
