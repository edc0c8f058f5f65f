#include "Loopback/KitSocket.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <poll.h>

#include "Platform/Sockets.h"

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

KitSocket bound(int type, const std::string& ip, std::uint16_t port) {
  KitSocket made(openNonBlockingSocket(AF_INET, type, 0));
  // A proxy that a test stops and starts again on its port must not wait for old connections.
  const int value = type == SOCK_STREAM ? 1 : receiveBuffer;
  setsockopt(made.get(), SOL_SOCKET, type == SOCK_STREAM ? SO_REUSEADDR : SO_RCVBUF, &value,
             sizeof value);
  const sockaddr_in address = endpointAt(ip, port).socketAddress();
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
  KitSocket made(::accept(get(), nullptr, nullptr));
  if (made) {
    checked(fcntl(made.get(), F_SETFD, FD_CLOEXEC), "fcntl");
    checked(fcntl(made.get(), F_SETFL, O_NONBLOCK), "fcntl");
  }
  return made;
}

KitSocket KitSocket::connectedTCP(const Endpoint& to) {
  KitSocket made(openNonBlockingSocket(AF_INET, SOCK_STREAM, 0));
  setBlocking(made.get(), {});
  made.connectTo(to);
  return made;
}

Endpoint KitSocket::localAddress() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(get(), reinterpret_cast<sockaddr*>(&address), &length);
  return Endpoint::of(address);
}

void KitSocket::connectTo(const Endpoint& to) const {
  const sockaddr_in address = to.socketAddress();
  checked(connect(get(), generic(address), sizeof address), "connect");
}

bool KitSocket::send(ByteView datagram, const Endpoint& to) const {
  const sockaddr_in address = to.socketAddress();
  return sendto(get(), datagram.data(), datagram.size(), sendFlags, generic(address),
                sizeof address) == static_cast<ssize_t>(datagram.size());
}

bool KitSocket::send(ByteView datagram) const {
  return ::send(get(), datagram.data(), datagram.size(), sendFlags) ==
         static_cast<ssize_t>(datagram.size());
}

std::optional<Arrival> KitSocket::receive(std::span<std::uint8_t> into, int flags) const {
  sockaddr_in from{};
  socklen_t length = sizeof from;
  const auto count =
      recvfrom(get(), into.data(), into.size(), flags, reinterpret_cast<sockaddr*>(&from), &length);
  if (count < 0) {
    return std::nullopt;
  }
  return Arrival{into.first(static_cast<std::size_t>(count)), Endpoint::of(from)};
}

void setBlocking(int socket, std::chrono::milliseconds limit) {
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) & ~O_NONBLOCK);
  const timeval time{limit.count() / 1000, static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
}

bool waitReadable(int descriptor, std::chrono::milliseconds limit) {
  return waitFor(descriptor, POLLIN, Deadline::clock::now() + limit) == Wait::ready;
}

}  // namespace zk::loopback
