#pragma once

#include <cstdint>
#include <string>

#include <sys/socket.h>

#include "Base/Endpoint.h"
#include "Platform/Sockets.h"

namespace zk {

class StopSignal;

/// What a proxy answered to UDP ASSOCIATE (RFC 1928 section 6).
struct RelayAnswer {
  std::uint8_t addressType = 0;
  std::string host;  // empty when it named nothing, or 0.0.0.0
  std::uint16_t port = 0;
};

/// Where the datagrams of the association go: to the address that the proxy names, but to `proxy`,
/// the address of the control connection, for nothing and in place of one that cannot be reached
/// from as far away as that: what a proxy behind a translator, or on another machine, calls itself.
///
/// Blocks for the lookup of a name, until `deadline` and until `stop` is raised, if there is one.
/// Throws SOCKS5Error for what no datagram can be sent to.
Endpoint relayAddress(const RelayAnswer& answer, const sockaddr& proxy, Deadline deadline,
                      const StopSignal* stop);

}  // namespace zk
