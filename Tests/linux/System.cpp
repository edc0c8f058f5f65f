#include "System.h"

#include <fstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zk::test {

Descriptor enterNewNetwork() {
  Descriptor before(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  return before && unshare(CLONE_NEWNET) == 0 ? std::move(before) : Descriptor();
}

void returnToNetwork(const Descriptor& before) {
  setns(before.get(), CLONE_NEWNET);
}

std::optional<bool> holdsAfterSuspension(int seconds, bool (*check)()) {
  constexpr int notTried = 2;
  const pid_t child = fork();
  if (child == 0) {
    std::ofstream offsets;
    if (unshare(CLONE_NEWTIME) == 0) {
      offsets.open("/proc/self/timens_offsets");
    }
    offsets << "boottime " << seconds << " 0" << std::flush;
    const pid_t ahead = offsets ? fork() : -1;  // a namespace is for children
    if (ahead == 0) {
      _exit(check() ? 0 : 1);
    }
    int status = 0;
    _exit(ahead > 0 && waitpid(ahead, &status, 0) > 0 ? WEXITSTATUS(status) : notTried);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status) == notTried ? std::nullopt : std::optional(status == 0);
}

void refuseSegments(int socket) {
  const int noChecksums = 1;  // the kernel cannot cut what it is not to compute checksums for
  setsockopt(socket, SOL_SOCKET, SO_NO_CHECK, &noChecksums, sizeof noChecksums);
}

}  // namespace zk::test
