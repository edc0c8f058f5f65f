// kqueue, level-triggered: what was reported and is still readable goes to the end of the system's
// list, which is what gives descriptors their turns.

#include "Platform/Poller.h"

#include <array>
#include <cstdint>

#include <fcntl.h>
#include <sys/event.h>

#include "Platform/posix/System.h"

namespace zk {
namespace {

constexpr int maxEvents = 64;

// The one event of wake(). Its numbers are not those of descriptors.
constexpr std::uintptr_t wakeUpEvent = 0;

bool change(int queue, std::uintptr_t which, int filter, int flags, unsigned filterFlags = 0) {
  struct kevent event {};
  EV_SET(&event, which, static_cast<std::int16_t>(filter), static_cast<std::uint16_t>(flags),
         filterFlags, 0, nullptr);
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

void Poller::wait(std::chrono::nanoseconds limit, std::vector<int>& ready,
                  std::vector<int>& writable) {
  using std::chrono::seconds;
  const auto whole = std::chrono::floor<seconds>(limit);
  const timespec timeout{static_cast<time_t>(whole.count()),
                         static_cast<long>((limit - whole).count())};
  std::array<struct kevent, maxEvents> events;
  const int count = kevent(poller_.get(), nullptr, 0, events.data(), maxEvents,
                           limit.count() < 0 ? nullptr : &timeout);
  ready.clear();
  writable.clear();
  for (int i = 0; i < count; ++i) {
    const struct kevent& event = events[static_cast<std::size_t>(i)];
    if (event.filter == EVFILT_READ) {
      ready.push_back(static_cast<int>(event.ident));
    } else if (event.filter == EVFILT_WRITE) {
      writable.push_back(static_cast<int>(event.ident));
    }
  }
}

void Poller::wake() {
  zk::change(poller_.get(), wakeUpEvent, EVFILT_USER, 0, NOTE_TRIGGER);
}

}  // namespace zk
