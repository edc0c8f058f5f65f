#include "Platform/Descriptor.h"

#include <unistd.h>

namespace zk {

void Descriptor::reset() {
  if (number_ >= 0) {
    close(std::exchange(number_, -1));
  }
}

}  // namespace zk
