#include "Platform/Process.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zk {

void tidyInheritedDescriptors() {
  int opened = open("/dev/null", O_RDWR);
  while (opened >= 0 && opened <= STDERR_FILENO) {
    opened = dup(opened);
  }
  close_range(STDERR_FILENO + 1, ~0U, 0);
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

void returnFreedMemory() {
  malloc_trim(0);
}

}  // namespace zk
