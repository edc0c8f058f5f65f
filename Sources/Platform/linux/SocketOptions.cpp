#include <array>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "Platform/posix/System.h"

namespace zk {

const int sendFlags = MSG_NOSIGNAL;
const int keepAliveIdleOption = TCP_KEEPIDLE;

Descriptor openNonBlockingSocket(int family, int type, int protocol) {
  Descriptor opened(socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol));
  require(static_cast<bool>(opened), "socket");
  return opened;
}

// One option for both families.
void pinToInterface(int socket, int /*family*/, unsigned interfaceIndex) {
  const int index = static_cast<int>(interfaceIndex);
  require(setsockopt(socket, SOL_SOCKET, SO_BINDTOIFINDEX, &index, sizeof index) == 0, "pin");
}

// What has crossed a router has lost one of its hops, of which there are 255 at most (RFC 5082).
void ignoreDistant(int socket, bool isIgnored) {
  const int leastHops = isIgnored ? 255 : 0;
  setOption(socket, IPPROTO_IP, IP_MINTTL, leastHops);
  setOption(socket, IPPROTO_IPV6, IPV6_MINHOPCOUNT, leastHops);
}

Pipe openPipe() {
  std::array<int, 2> ends{};
  require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace zk
