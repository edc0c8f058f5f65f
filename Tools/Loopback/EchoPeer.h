#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <netinet/in.h>

#include "Platform/Bytes.h"

namespace zk::loopback {

/// A UDP peer, on a thread of its own, that sends every datagram back to where it came from. Any
/// thread.
class EchoPeer {
 public:
  /// Binds `ip`:`port`, 0 meaning any free port. Throws std::system_error.
  explicit EchoPeer(const std::string& ip = "127.0.0.1", std::uint16_t port = 0);
  ~EchoPeer();
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
  bool send(const sockaddr_in& to, ByteView payload);

 private:
  struct State;
  const std::string ip_;
  const std::unique_ptr<State> state_;
  std::uint16_t port_ = 0;
};

}  // namespace zk::loopback
