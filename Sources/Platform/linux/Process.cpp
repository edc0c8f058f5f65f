#include "Platform/Process.h"

#include <csignal>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zk {

void prepareProcess() {
  int opened = open("/dev/null", O_RDWR);
  while (opened >= 0 && opened <= STDERR_FILENO) {
    opened = dup(opened);
  }
  close_range(STDERR_FILENO + 1, ~0U, 0);
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
  }
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void returnFreedMemory() {
  malloc_trim(0);
}

}  // namespace zk
