#pragma once

#include "Loopback/KitSocket.h"

namespace zk::bench {

enum class Command : std::uint8_t { connect = 1, associate = 3 };

/// A connection to the proxy on which it has said yes, in the plainest way: one message and one
/// answer after the other, without a login (RFC 1928).
struct Proxied {
  /// Throws std::runtime_error.
  Proxied(const Endpoint& proxy, Command command, const Endpoint& target);

  loopback::KitSocket socket;
  Endpoint bound;  // what the proxy's answer names
};

}  // namespace zk::bench
