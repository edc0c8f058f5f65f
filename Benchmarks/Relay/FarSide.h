#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <thread>

#include "Loopback/KitSocket.h"

namespace zk::bench {

/// The cheapest far side there is: one socket, on a thread of its own, that stands for a proxy's
/// relay and all peers behind it. A proxy whose script announces its port sends clients there.
///
/// It answers STUN Binding requests behind a SOCKS5 UDP header, so that a relay finds its egress
/// address (203.0.113.9) and comes up. Every other datagram goes to the handler.
class FarSide {
 public:
  /// Gets a datagram, which it may change, and its sender, on the far side's thread. Whether the
  /// datagram is sent back, as all are without a handler.
  using Handler = std::function<bool(std::span<std::uint8_t> datagram, const Endpoint& from)>;

  /// What is sent back is sent `distance` later; STUN is answered at once.
  explicit FarSide(Handler handler = {},
                   loopback::KitSocket socket = loopback::KitSocket::boundUDP(),
                   std::chrono::milliseconds distance = {});
  ~FarSide();
  FarSide(const FarSide&) = delete;
  FarSide& operator=(const FarSide&) = delete;

  const loopback::KitSocket& socket() const { return socket_; }
  std::uint16_t port() const { return socket_.port(); }

 private:
  void run();

  const loopback::KitSocket socket_;
  const Handler handler_;
  const std::chrono::milliseconds distance_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

}  // namespace zk::bench
