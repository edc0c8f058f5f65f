#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include <sys/socket.h>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "Platform/Descriptor.h"

namespace zk::loopback {

/// `ip` must be a dotted quad.
inline Endpoint endpointAt(std::string_view ip, std::uint16_t port) {
  return {parseAddress(ip).value(), port};
}

/// On this machine.
inline Endpoint localEndpoint(std::uint16_t port) {
  return {INADDR_LOOPBACK, port};
}

/// One datagram that has arrived.
struct Arrival {
  std::span<std::uint8_t> datagram;  // in the caller's buffer
  Endpoint from;
};

/// An IPv4 socket, close-on-exec, with what the far side of a test does to it.
class KitSocket : public Descriptor {
 public:
  using Descriptor::Descriptor;
  explicit KitSocket(Descriptor&& socket) : Descriptor(std::move(socket)) {}

  /// A non-blocking UDP socket bound to `ip`:`port` (0 = any free port), with a large receive
  /// buffer, so that a burst in a test is not lost on the far side. Throws std::system_error.
  static KitSocket boundUDP(const std::string& ip = "127.0.0.1", std::uint16_t port = 0);
  /// A non-blocking TCP listener. Throws std::system_error.
  static KitSocket listener(const std::string& ip = "127.0.0.1", std::uint16_t port = 0);
  /// A blocking TCP connection, made. Throws std::system_error.
  static KitSocket connectedTCP(const Endpoint& to);

  /// A connection that a listener has waiting, non-blocking; none when there is none.
  KitSocket accepted() const;

  Endpoint localAddress() const;
  std::uint16_t port() const { return localAddress().port; }
  /// Only `to` is sent to and heard from now on. Throws std::system_error.
  void connectTo(const Endpoint& to) const;
  /// Whether the system took the whole datagram.
  bool send(ByteView datagram, const Endpoint& to) const;
  bool send(ByteView datagram) const;
  /// Takes one datagram; absent when there is none. Waits for one only with flags 0 and after
  /// setBlocking().
  std::optional<Arrival> receive(std::span<std::uint8_t> into, int flags = MSG_DONTWAIT) const;
};

/// Lets a receive on that socket wait, for so long; 0 means for ever.
void setBlocking(int socket, std::chrono::milliseconds limit);

/// Whether there is something to read before `limit` has passed.
bool waitReadable(int descriptor, std::chrono::milliseconds limit);

}  // namespace zk::loopback
