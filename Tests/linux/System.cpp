#include "System.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>

namespace zk::test {

Descriptor enterNewNetwork() {
  Descriptor before(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  return before && unshare(CLONE_NEWNET) == 0 ? std::move(before) : Descriptor();
}

void returnToNetwork(const Descriptor& before) {
  setns(before.get(), CLONE_NEWNET);
}

void refuseSegments(int socket) {
  const int noChecksums = 1;  // the kernel cannot cut what it is not to compute checksums for
  setsockopt(socket, SOL_SOCKET, SO_NO_CHECK, &noChecksums, sizeof noChecksums);
}

}  // namespace zk::test
