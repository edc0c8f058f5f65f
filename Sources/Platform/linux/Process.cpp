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

void returnFreedMemory() {
  malloc_trim(0);
}

}  // namespace zk
