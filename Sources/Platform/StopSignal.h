#pragma once

#include <atomic>

#include "Platform/Sockets.h"

namespace zk {

/// Tells waiting threads that something has happened, usually that they should give up. Raised
/// once, for good.
///
/// It is a descriptor that becomes readable, so that it can be waited for together with a socket:
/// shutting down a socket under a thread does not wake it on every system.
class StopSignal {
 public:
  /// Throws std::system_error when there is no descriptor to be had.
  StopSignal() : pipe_(openPipe()) {}

  /// Any thread and any signal handler, any number of times. Cannot fail.
  void raise() {
    // The flag comes first, so that whoever the descriptor wakes finds it set.
    if (!isRaised_.exchange(true)) {
      pipe_.writer.reset();
    }
  }
  bool isRaised() const { return isRaised_; }
  /// Readable from raise() on.
  int descriptor() const { return pipe_.reader.get(); }

 private:
  Pipe pipe_;  // closing its writer is the signal
  std::atomic<bool> isRaised_{false};
};

}  // namespace zk
