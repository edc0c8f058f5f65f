#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include <netinet/in.h>

#include "Base/Bytes.h"

namespace zk::loopback {

/// One datagram that has arrived.
struct Arrival {
  std::span<std::uint8_t> datagram;  // in the caller's buffer
  sockaddr_in from;
};

/// A socket, close-on-exec, and its owner.
class KitSocket {
 public:
  /// Takes over `descriptor`; -1 is none.
  explicit KitSocket(int descriptor = -1) : descriptor_(descriptor) {}
  KitSocket(KitSocket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  KitSocket& operator=(KitSocket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~KitSocket() { close(); }

  /// A non-blocking UDP socket bound to `ip`:`port` (0 = any free port), with a large receive
  /// buffer, so that a burst in a test is not lost on the far side. Throws std::system_error.
  static KitSocket boundUDP(const std::string& ip = "127.0.0.1", std::uint16_t port = 0);
  /// A non-blocking TCP listener. Throws std::system_error.
  static KitSocket listener(const std::string& ip = "127.0.0.1", std::uint16_t port = 0);
  /// A blocking TCP connection, made. Throws std::system_error.
  static KitSocket connectedTCP(const sockaddr_in& to);

  /// A connection that a listener has waiting, non-blocking; none when there is none.
  KitSocket accepted() const;

  int get() const { return descriptor_; }
  void close();
  sockaddr_in localAddress() const;
  /// Only `to` is sent to and heard from now on. Throws std::system_error.
  void connectTo(const sockaddr_in& to);
  /// Whether the system took the whole datagram.
  bool send(ByteView datagram, const sockaddr_in& to) const;
  bool send(ByteView datagram) const;
  /// Takes one datagram; absent when there is none. Waits for one only with flags 0 and after
  /// setBlocking().
  std::optional<Arrival> receive(std::span<std::uint8_t> into, int flags = MSG_DONTWAIT) const;
  bool waitReadable(std::chrono::milliseconds limit) const;

 private:
  int descriptor_;
};

/// Lets a receive on that socket wait, for so long.
void setBlocking(int socket, std::chrono::milliseconds limit);

}  // namespace zk::loopback
