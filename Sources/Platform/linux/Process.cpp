#include "Platform/Process.h"

#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include "Platform/posix/System.h"

namespace zk {

const clockid_t clockThatCountsSuspension = CLOCK_BOOTTIME;

void closeInherited() {
  close_range(STDERR_FILENO + 1, ~0U, 0);
}

rlim_t mostDescriptors(rlim_t hardLimit) {
  return hardLimit;
}

// The kernel refuses longer names.
const std::size_t maxThreadName = 15;

void nameThisThread(const char* name) {
  pthread_setname_np(pthread_self(), name);
}

// Else what was freed once at a size would be kept at that size from then on.
void returnLargeBlocksAtOnce() {
  constexpr int large = 128 << 10;
  mallopt(M_MMAP_THRESHOLD, large);
}

void returnFreedMemory() {
  malloc_trim(0);
}

}  // namespace zk
