#include "Platform/StopSignal.h"

#include "Platform/Sockets.h"

namespace zk {

StopSignal::StopSignal() {
  Pipe pipe = openPipe();
  reader_ = std::move(pipe.reader);
  writer_ = std::move(pipe.writer);
}

void StopSignal::raise() {
  // Known before it is felt: whoever the descriptor wakes finds it raised.
  if (!isRaised_.exchange(true)) {
    writer_.reset();
  }
}

}  // namespace zk
