#include "Loopback/KitSocket.h"

#include <cerrno>
#include <system_error>

#include <sys/socket.h>

#include "Platform/IPv4.h"
#include "Platform/Sockets.h"

namespace zk::loopback {
namespace {

constexpr int receiveBuffer = 4 << 20;

int openBound(int type, const std::string& ip, std::uint16_t port) {
  const int socket = openSocket(AF_INET, type | SOCK_NONBLOCK, 0);
  if (socket < 0) {
    throw std::system_error(errno, std::generic_category(), "socket");
  }
  const int on = 1;
  if (type == SOCK_STREAM) {
    // A proxy that a test stops and starts again on its port must not wait for old connections.
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  } else {
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  }
  if (!bindSocket(socket, socketAddress(ip, port)) ||
      (type == SOCK_STREAM && listen(socket, SOMAXCONN) < 0)) {
    const int error = errno;
    closeSocket(socket);
    throw std::system_error(error, std::generic_category(), "bind " + ip);
  }
  return socket;
}

}  // namespace

int openBoundUDPSocket(const std::string& ip, std::uint16_t port) {
  return openBound(SOCK_DGRAM, ip, port);
}

int openListener(const std::string& ip, std::uint16_t port) {
  return openBound(SOCK_STREAM, ip, port);
}

std::optional<Arrival> takeDatagram(int socket, std::span<std::uint8_t> into) {
  sockaddr_in from{};
  socklen_t length = sizeof from;
  const auto count = recvfrom(socket, into.data(), into.size(), MSG_DONTWAIT,
                              reinterpret_cast<sockaddr*>(&from), &length);
  if (count < 0) {
    return std::nullopt;
  }
  return Arrival{into.first(static_cast<std::size_t>(count)), from};
}

}  // namespace zk::loopback
