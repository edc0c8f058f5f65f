#pragma once

#include <optional>
#include <string>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "ZelkorSOCKS5/Association.h"

namespace zk {

/// One STUN Binding transaction through an existing SOCKS5 UDP relay.
namespace ProbeRelay {

/// Asks a STUN server through the relay which address it sees, over a UDP socket that is not
/// pinned. Blocks for `timeout` seconds at most; the first datagram of the relay decides. Throws
/// SOCKS5Error.
Endpoint sendSTUN(const Endpoint& relay, const Endpoint& stunServer, double timeout);

}  // namespace ProbeRelay

/// A self-contained check of a proxy. An entry point for users of the module; the daemon's own
/// relays do their own asking.
namespace SOCKS5Probe {

/// Exactly one of the two texts is present.
struct Outcome {
  bool supportsUDPAssociate = false;    // connect, handshake, association and STUN all worked
  std::optional<std::string> egressIP;  // "address:port" that the STUN server saw
  std::optional<std::string> errorDescription;  // why not
};

/// Connects to the proxy, asks for an association, and sends one Binding request through it. Blocks
/// meanwhile; never throws. `timeout` in seconds, for each connection attempt, each read and the
/// transaction.
Outcome probe(const SOCKS5Proxy& proxy, const Endpoint& stunServer, double timeout);

}  // namespace SOCKS5Probe
}  // namespace zk
