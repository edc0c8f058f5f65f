#pragma once

#include <atomic>

#include "Platform/Descriptor.h"

namespace zk {

/// Tells threads that wait that something has happened, mostly that they are to give up. Raised
/// once, and for good.
///
/// It is a descriptor that becomes readable, so that whoever waits for a socket waits for it as
/// well: shutting down a socket under a thread does not wake it on every system.
class StopSignal {
 public:
  /// Throws std::system_error when there is no descriptor to be had.
  StopSignal();

  /// Any thread and any signal handler, any number of times. Cannot fail.
  void raise();
  bool isRaised() const { return isRaised_; }
  /// Readable from raise() on.
  int descriptor() const { return reader_.get(); }

 private:
  Descriptor reader_;
  Descriptor writer_;  // closing it is the signal
  std::atomic<bool> isRaised_{false};
};

}  // namespace zk
