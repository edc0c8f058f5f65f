#include "Platform/Process.h"

#include <malloc.h>
#include <unistd.h>

#include "Platform/posix/System.h"

namespace zk {

void closeInherited() {
  close_range(STDERR_FILENO + 1, ~0U, 0);
}

rlim_t mostDescriptors(rlim_t hardLimit) {
  return hardLimit;
}

void returnFreedMemory() {
  malloc_trim(0);
}

}  // namespace zk
