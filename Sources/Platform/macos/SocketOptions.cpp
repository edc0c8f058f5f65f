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
namespace {

void setOption(int socket, int level, int option, int value) {
  setsockopt(socket, level, option, &value, sizeof value);
}

}  // namespace

const int sendFlags = 0;  // SO_NOSIGPIPE does it

int openSocket(int family, int type, int protocol) {
  const int opened = socket(family, type, protocol);
  if (opened >= 0) {
    fcntl(opened, F_SETFD, FD_CLOEXEC);
    setOption(opened, SOL_SOCKET, SO_NOSIGPIPE, 1);
  }
  return opened;
}

Descriptor openNonBlockingSocket(int family, int type, int protocol) {
  Descriptor opened(openSocket(family, type, protocol));
  if (!opened || fcntl(opened.get(), F_SETFL, O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "socket");
  }
  return opened;
}

void pinToInterface(int socket, int family, unsigned interfaceIndex) {
  const bool isIPv6 = family == AF_INET6;
  if (setsockopt(socket, isIPv6 ? IPPROTO_IPV6 : IPPROTO_IP, isIPv6 ? IPV6_BOUND_IF : IP_BOUND_IF,
                 &interfaceIndex, sizeof interfaceIndex) != 0) {
    throw std::system_error(errno, std::generic_category(), "pin");
  }
}

void keepAlive(int socket, std::chrono::seconds idle, std::chrono::seconds interval, int probes) {
  setOption(socket, IPPROTO_TCP, TCP_KEEPALIVE, static_cast<int>(idle.count()));
  setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(interval.count()));
  setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, probes);
  setOption(socket, SOL_SOCKET, SO_KEEPALIVE, probes > 0 ? 1 : 0);
}

// There is no such option, nor a need for it: see README.md.
void ignoreDistant(int /*socket*/, bool /*isIgnored*/) {}

Pipe openPipe() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  for (const int end : ends) {
    fcntl(end, F_SETFD, FD_CLOEXEC);
  }
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace zk
