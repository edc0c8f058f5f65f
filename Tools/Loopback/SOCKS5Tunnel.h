#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "Platform/StreamBridge.h"

namespace zk::loopback {

/// One CONNECT of the kit's proxy: a connection to the far end, and then what goes through it. The
/// loop's thread only.
class SOCKS5Tunnel final : EventLoop::Source {
 public:
  /// Gets the REP of the answer (RFC 1928 section 6).
  using Decided = std::function<void(std::uint8_t reply)>;

  SOCKS5Tunnel(EventLoop& loop, ConduitPool& conduits, const Endpoint& to, Decided decided);
  ~SOCKS5Tunnel();
  SOCKS5Tunnel(const SOCKS5Tunnel&) = delete;
  SOCKS5Tunnel& operator=(const SOCKS5Tunnel&) = delete;

  /// Joins the far end with `client`. Once it has been reached.
  void carry(Descriptor client, std::function<void()> ended);

 private:
  void onReadable() override {}
  void onWritable() override;

  EventLoop& loop_;
  ConduitPool& conduits_;
  Decided decided_;
  TCPSocket far_;
  std::optional<StreamBridge> bridge_;
};

}  // namespace zk::loopback
