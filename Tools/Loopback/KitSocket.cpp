#include "Loopback/KitSocket.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Base/IPv4.h"

namespace zk::loopback {
namespace {

constexpr int receiveBuffer = 4 << 20;

int checked(int result, const char* call) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), call);
  }
  return result;
}

const sockaddr* generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

KitSocket open(int type) {
  std::signal(SIGPIPE, SIG_IGN);  // a far end may be gone before it is written to
  KitSocket made(checked(socket(AF_INET, type, 0), "socket"));
  checked(fcntl(made.get(), F_SETFD, FD_CLOEXEC), "fcntl");
  return made;
}

KitSocket bound(int type, const std::string& ip, std::uint16_t port) {
  KitSocket made = open(type);
  // A proxy that a test stops and starts again on its port must not wait for old connections.
  const int value = type == SOCK_STREAM ? 1 : receiveBuffer;
  setsockopt(made.get(), SOL_SOCKET, type == SOCK_STREAM ? SO_REUSEADDR : SO_RCVBUF, &value,
             sizeof value);
  checked(fcntl(made.get(), F_SETFL, O_NONBLOCK), "fcntl");
  const sockaddr_in address = socketAddress(ip, port);
  checked(bind(made.get(), generic(address), sizeof address), "bind");
  return made;
}

}  // namespace

KitSocket KitSocket::boundUDP(const std::string& ip, std::uint16_t port) {
  return bound(SOCK_DGRAM, ip, port);
}

KitSocket KitSocket::listener(const std::string& ip, std::uint16_t port) {
  KitSocket made = bound(SOCK_STREAM, ip, port);
  checked(listen(made.get(), SOMAXCONN), "listen");
  return made;
}

KitSocket KitSocket::accepted() const {
  KitSocket made(::accept(descriptor_, nullptr, nullptr));
  if (made.get() >= 0) {
    checked(fcntl(made.get(), F_SETFD, FD_CLOEXEC), "fcntl");
    checked(fcntl(made.get(), F_SETFL, O_NONBLOCK), "fcntl");
  }
  return made;
}

KitSocket KitSocket::connectedTCP(const sockaddr_in& to) {
  KitSocket made = open(SOCK_STREAM);
  made.connectTo(to);
  return made;
}

void KitSocket::close() {
  if (descriptor_ >= 0) {
    ::close(std::exchange(descriptor_, -1));
  }
}

sockaddr_in KitSocket::localAddress() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
  return address;
}

void KitSocket::connectTo(const sockaddr_in& to) {
  checked(connect(descriptor_, generic(to), sizeof to), "connect");
}

bool KitSocket::send(ByteView datagram, const sockaddr_in& to) const {
  return sendto(descriptor_, datagram.data(), datagram.size(), 0, generic(to), sizeof to) ==
         static_cast<ssize_t>(datagram.size());
}

bool KitSocket::send(ByteView datagram) const {
  return ::send(descriptor_, datagram.data(), datagram.size(), 0) ==
         static_cast<ssize_t>(datagram.size());
}

std::optional<Arrival> KitSocket::receive(std::span<std::uint8_t> into, int flags) const {
  sockaddr_in from{};
  socklen_t length = sizeof from;
  const auto count = recvfrom(descriptor_, into.data(), into.size(), flags,
                              reinterpret_cast<sockaddr*>(&from), &length);
  if (count < 0) {
    return std::nullopt;
  }
  return Arrival{into.first(static_cast<std::size_t>(count)), from};
}

bool KitSocket::waitReadable(std::chrono::milliseconds limit) const {
  pollfd waiting{descriptor_, POLLIN, 0};
  return poll(&waiting, 1, static_cast<int>(std::max<long long>(limit.count(), 0))) > 0;
}

void setBlocking(int socket, std::chrono::milliseconds limit) {
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) & ~O_NONBLOCK);
  const timeval time{limit.count() / 1000, static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
}

}  // namespace zk::loopback
