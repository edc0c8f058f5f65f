#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>

namespace zk::bench {

/// The cheapest far side there is, the same for every contestant: a socket that sends each datagram
/// straight back. Behind a SOCKS5 UDP header it answers STUN Binding requests, so that a relay can
/// find its egress address (203.0.113.9) and comes up. A payload of spoiledSize octets comes back
/// in a frame that no relay can read; nothing else looks into a datagram.
class FarSide {
 public:
  static constexpr std::size_t spoiledSize = 333;

  FarSide();
  ~FarSide();
  FarSide(const FarSide&) = delete;
  FarSide& operator=(const FarSide&) = delete;
  std::uint16_t port() const { return port_; }

 private:
  void run();
  int socket_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

}  // namespace zk::bench
