#include "Platform/Process.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <malloc/malloc.h>
#include <sys/resource.h>
#include <sys/syslimits.h>
#include <unistd.h>

namespace zk {
namespace {

// There is no call for a range, and the limit may be a quarter of a million.
void closeAllButStandard() {
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

}  // namespace

void prepareProcess() {
  int opened = open("/dev/null", O_RDWR);
  while (opened >= 0 && opened <= STDERR_FILENO) {
    opened = dup(opened);
  }
  closeAllButStandard();
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    // The hard limit is usually "none", which the system does not take for the soft one.
    const rlim_t wanted = std::min<rlim_t>(OPEN_MAX, descriptors.rlim_max);
    descriptors.rlim_cur = std::max(descriptors.rlim_cur, wanted);
    setrlimit(RLIMIT_NOFILE, &descriptors);
  }
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void returnFreedMemory() {
  malloc_zone_pressure_relief(nullptr, 0);
}

}  // namespace zk
