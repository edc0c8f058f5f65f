#include "Platform/Process.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <dirent.h>
#include <malloc/malloc.h>
#include <pthread.h>
#include <sys/syslimits.h>
#include <unistd.h>

#include "Platform/posix/System.h"

namespace zk {

const clockid_t clockThatCountsSuspension = CLOCK_MONOTONIC_RAW;

// There is no call for a range, and the limit may be a quarter of a million.
void closeInherited() {
  std::vector<int> descriptors;
  if (DIR* const directory = opendir("/dev/fd")) {
    while (const dirent* const entry = readdir(directory)) {
      descriptors.push_back(std::atoi(entry->d_name));
    }
    closedir(directory);
  }
  for (const int descriptor : descriptors) {
    if (descriptor > STDERR_FILENO) {
      close(descriptor);
    }
  }
}

// The hard limit is usually "none", which the system does not take for the soft one.
rlim_t mostDescriptors(rlim_t hardLimit) {
  return std::min<rlim_t>(OPEN_MAX, hardLimit);
}

const std::size_t maxThreadName = 63;

void nameThisThread(const char* name) {
  pthread_setname_np(name);
}

void returnLargeBlocksAtOnce() {}  // it does

void returnFreedMemory() {
  malloc_zone_pressure_relief(nullptr, 0);
}

}  // namespace zk
