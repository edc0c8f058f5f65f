#pragma once

#include <cstdint>
#include <future>
#include <optional>
#include <string>

#include "Platform/Bytes.h"

namespace zk {

/// One STUN Binding transaction through an existing SOCKS5 UDP relay.
namespace ProbeRelay {

/// Asks the STUN server at `stunIP` (four octets) through the relay which address it sees, over a
/// UDP socket that is not pinned. The future holds "address:port" or a SOCKS5Error within `timeout`
/// seconds; the first datagram that comes back decides.
std::future<std::string> sendSTUN(const std::string& relayHost, std::uint16_t relayPort,
                                  ByteView stunIP, std::uint16_t stunPort, double timeout);

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

/// Connects to the proxy, asks for an association, and sends one Binding request through it. On a
/// thread of the future's own; never throws. `timeout` in seconds, for each connection attempt,
/// each read and the transaction.
std::future<Outcome> probe(std::string host, std::int64_t port, std::optional<std::string> username,
                           std::optional<std::string> password, Bytes stunIP,
                           std::uint16_t stunPort, double timeout);

}  // namespace SOCKS5Probe
}  // namespace zk
