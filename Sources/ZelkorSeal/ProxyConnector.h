#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "ZelkorSeal/ProxyConnection.h"

namespace zk {

/// Makes a seal's connections through the proxy. Some are begun ahead: who opens a connection
/// mostly opens more, and each costs one round trip to the proxy where it would cost three (four
/// with a login). The loop's thread.
class ProxyConnector {
 public:
  /// So many are begun ahead at most, and not more than were asked for within
  /// ProxyConnection::spareLimit: none while nobody opens any.
  static constexpr std::size_t maxSpares = 4;

  /// `loop` and `access` outlive this. `known` is a way to the proxy that works, if there is one.
  /// Throws std::system_error.
  ProxyConnector(EventLoop& loop, const ProxyAccess& access, std::optional<ProxyWay::Way> known)
      : loop_(loop), access_(access), way_(loop, access, known) {}

  /// `done` is not called before this has returned, nor once the result is destroyed.
  std::unique_ptr<ProxyConnection> connect(const Endpoint& to, ProxyConnection::Done done);

 private:
  EventLoop& loop_;
  const ProxyAccess& access_;
  ProxyWay way_;
  std::vector<std::unique_ptr<ProxyConnection>> spares_;       // the oldest first
  std::array<std::optional<std::uint64_t>, maxSpares> asked_;  // when, the last ones
  std::size_t count_ = 0;
};

}  // namespace zk
