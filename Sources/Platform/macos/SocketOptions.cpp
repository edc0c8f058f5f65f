#include <array>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "Platform/posix/System.h"

namespace zk {

const int sendFlags = 0;  // SO_NOSIGPIPE does it
const int keepAliveIdleOption = TCP_KEEPALIVE;

Descriptor openNonBlockingSocket(int family, int type, int protocol) {
  Descriptor opened(socket(family, type, protocol));
  require(opened && fcntl(opened.get(), F_SETFD, FD_CLOEXEC) == 0 &&
              fcntl(opened.get(), F_SETFL, O_NONBLOCK) == 0,
          "socket");
  setOption(opened.get(), SOL_SOCKET, SO_NOSIGPIPE, 1);
  return opened;
}

void pinToInterface(int socket, int family, unsigned interfaceIndex) {
  const bool isIPv6 = family == AF_INET6;
  require(
      setsockopt(socket, isIPv6 ? IPPROTO_IPV6 : IPPROTO_IP, isIPv6 ? IPV6_BOUND_IF : IP_BOUND_IF,
                 &interfaceIndex, sizeof interfaceIndex) == 0,
      "pin");
}

// There is no such option, nor a need for it: see README.md.
void ignoreDistant(int /*socket*/, bool /*isIgnored*/) {}

Pipe openPipe() {
  std::array<int, 2> ends{};
  require(pipe(ends.data()) == 0, "pipe");
  for (const int end : ends) {
    fcntl(end, F_SETFD, FD_CLOEXEC);
  }
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace zk
