#include "Platform/StopSignal.h"

namespace zk {

void StopSignal::raise() {
  // The flag comes first, so that whoever the descriptor wakes finds it set.
  if (!isRaised_.exchange(true)) {
    pipe_.writer.reset();
  }
}

}  // namespace zk
