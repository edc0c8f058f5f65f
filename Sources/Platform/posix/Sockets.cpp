#include "Platform/Sockets.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Clock.h"

namespace zk {

std::string errorText(int error) {
  return std::generic_category().message(error);
}

int openSocket(int family, int type, int protocol) {
  return socket(family, type | SOCK_CLOEXEC, protocol);
}

int openUDPSocket() {
  return openSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
}

bool bindSocket(int socket, const sockaddr_in& address) {
  return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

sockaddr_in localAddress(int socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
  return address;
}

bool pinToInterface(int socket, unsigned interfaceIndex) {
  const int index = static_cast<int>(interfaceIndex);
  return setsockopt(socket, SOL_SOCKET, SO_BINDTOIFINDEX, &index, sizeof index) == 0;
}

unsigned interfaceIndex(const std::string& name) {
  return if_nametoindex(name.c_str());
}

std::ptrdiff_t sendDatagram(int socket, ByteView datagram, const sockaddr_in& to) {
  ssize_t sent = 0;
  do {
    sent = sendto(socket, datagram.data(), datagram.size(), MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

void shutdownSocket(int socket) {
  shutdown(socket, SHUT_RDWR);
}

void closeSocket(int socket) {
  close(socket);
}

int pollSocket(int socket, short events, int milliseconds) {
  const std::uint64_t deadline =
      monotonicNanoseconds() + static_cast<std::uint64_t>(std::max(milliseconds, 0)) * 1'000'000U;
  pollfd waiting{socket, events, 0};
  while (true) {
    const int ready = poll(&waiting, 1, milliseconds);
    if (ready >= 0 || errno != EINTR) {
      return ready;
    }
    const std::uint64_t now = monotonicNanoseconds();
    milliseconds = now >= deadline ? 0 : static_cast<int>((deadline - now) / 1'000'000U);
  }
}

}  // namespace zk
