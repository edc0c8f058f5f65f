#include "zkturnd/ParentWatch.h"

#include <array>

#include "Platform/Process.h"
#include "Platform/Thread.h"

namespace zk {

void watchParent() {
  startThread("zk.turnd.stdin-watch", [] {
    std::array<char, 256> discarded;
    while (readInput(discarded) > 0) {
    }
    requestStop();
  }).detach();
}

}  // namespace zk
