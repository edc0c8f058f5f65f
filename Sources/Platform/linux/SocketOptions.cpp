#include <array>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Sockets.h"

namespace zk {

const int sendFlags = MSG_NOSIGNAL;

int openSocket(int family, int type, int protocol) {
  return socket(family, type | SOCK_CLOEXEC, protocol);
}

Descriptor openNonBlockingSocket(int family, int type, int protocol) {
  Descriptor opened(openSocket(family, type | SOCK_NONBLOCK, protocol));
  if (!opened) {
    throw std::system_error(errno, std::generic_category(), "socket");
  }
  return opened;
}

// One option for both families.
void pinToInterface(int socket, int /*family*/, unsigned interfaceIndex) {
  const int index = static_cast<int>(interfaceIndex);
  if (setsockopt(socket, SOL_SOCKET, SO_BINDTOIFINDEX, &index, sizeof index) != 0) {
    throw std::system_error(errno, std::generic_category(), "pin");
  }
}

void keepAlive(int socket, std::chrono::seconds idle, std::chrono::seconds interval, int probes) {
  const auto set = [socket](int level, int option, int value) {
    setsockopt(socket, level, option, &value, sizeof value);
  };
  set(IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(idle.count()));
  set(IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(interval.count()));
  set(IPPROTO_TCP, TCP_KEEPCNT, probes);
  set(SOL_SOCKET, SO_KEEPALIVE, probes > 0 ? 1 : 0);
}

// What has crossed a router has lost one of its hops, of which there are 255 at most (RFC 5082).
void ignoreDistant(int socket, bool isIgnored) {
  const int leastHops = isIgnored ? 255 : 0;
  setsockopt(socket, IPPROTO_IP, IP_MINTTL, &leastHops, sizeof leastHops);
  setsockopt(socket, IPPROTO_IPV6, IPV6_MINHOPCOUNT, &leastHops, sizeof leastHops);
}

Pipe openPipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace zk
