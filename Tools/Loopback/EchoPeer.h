#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <netinet/in.h>

#include "Base/Bytes.h"
#include "Loopback/EventLoop.h"
#include "Loopback/KitSocket.h"

namespace zk::loopback {

/// A UDP peer, on a thread of its own, that sends every datagram back to where it came from. Any
/// thread.
class EchoPeer {
 public:
  /// Binds `ip`:`port`, 0 meaning any free port. Throws std::system_error.
  explicit EchoPeer(const std::string& ip = "127.0.0.1", std::uint16_t port = 0);
  ~EchoPeer() { loop_.stop(); }
  EchoPeer(const EchoPeer&) = delete;
  EchoPeer& operator=(const EchoPeer&) = delete;

  const std::string& ip() const { return ip_; }
  std::uint16_t port() const { return port_; }

  /// Whether datagrams are sent back (the default) or only counted.
  void setEcho(bool echo);
  /// Datagrams that have arrived.
  std::size_t received() const;
  /// The latest of them, and where it came from; absent before the first.
  std::optional<Bytes> lastPayload() const;
  std::optional<sockaddr_in> lastSource() const;
  /// Sends a datagram of its own accord. Whether the system took it.
  bool send(const sockaddr_in& to, ByteView payload) { return socket_.send(payload, to); }

 private:
  void takeDatagrams();

  const std::string ip_;
  const KitSocket socket_;
  const std::uint16_t port_;
  // These belong to the loop's thread.
  bool echo_ = true;
  std::size_t received_ = 0;
  std::optional<Bytes> lastPayload_;
  std::optional<sockaddr_in> lastSource_;
  std::array<std::uint8_t, 65536> buffer_{};
  EventLoop loop_{"kit.echo"};
};

}  // namespace zk::loopback
