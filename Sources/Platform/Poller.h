#pragma once

#include <chrono>
#include <vector>

#include "Platform/Descriptor.h"

namespace zk {

/// The system's way of waiting for many descriptors at once, for EventLoop.
class Poller {
 public:
  /// What is waited for on a descriptor. Its failure comes with each, and by itself where the
  /// system can tell; with none of them nothing is reported.
  struct Interest {
    bool readable = false;
    bool writable = false;
    bool failed = false;
    bool operator==(const Interest&) const = default;
  };

  /// Throws std::system_error.
  Poller();

  /// From now on wait() reports `descriptor` whenever it is readable, has ended or failed, until
  /// remove() or its end. Throws std::system_error.
  void add(int descriptor) { change(descriptor, {}, {.readable = true}); }
  void remove(int descriptor);
  /// Waits for something else on a descriptor from now on. `from` is what it was waited for so far.
  /// Throws std::system_error.
  void change(int descriptor, Interest from, Interest to);

  /// Sets the one timer, in place of what it was set to: it goes off once, so long from now or a
  /// little later. A wait that follows has no time limit to give to the system.
  void setTimer(std::chrono::nanoseconds delay);

  /// What else there was.
  struct Events {
    bool wasWoken = false;      // by wake()
    bool hasTimerGone = false;  // or may have: look at the clock and set it again
  };
  /// Puts the descriptors that are readable into `ready`, and those that are writable into
  /// `writable`, in turns when they are many: none is reported twice before all others have been.
  /// Waits for one, for wake() or for the timer, when it `mayWait`. May return early with nothing.
  Events wait(bool mayWait, std::vector<int>& ready, std::vector<int>& writable);

  /// Ends a wait() that is under way, or the next one. Any thread.
  void wake();

 private:
  Descriptor poller_;
  // Where the system needs descriptors for them.
  Descriptor wakeUp_;
  Descriptor timer_;
  bool isTimerLost_ = false;  // the system did not take it
};

}  // namespace zk
