#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Base/Endpoint.h"
#include "Base/LogLine.h"
#include "Platform/DatagramSocket.h"
#include "Platform/StopSignal.h"

namespace zk {

/// Where a proxy's traffic comes out towards the internet.
struct Egress {
  std::string ip;                     // as peers see it; empty when it could not be found
  std::optional<std::uint16_t> port;  // likewise; absent unless a STUN server has just seen it
};

/// Finds the address at which a proxy's traffic leaves towards the internet, which is the address
/// that a client's peers will see.
///
/// It asks STUN servers (ZK_STUN_IPS, or three public ones) one after the other through the relay
/// at `relayAddr`, from `socket`, which is bound and which nobody else reads, and takes the first
/// answer. Without one it falls back to the last address found for the same gateway, and else finds
/// none: it never takes the gateway for the egress address. Only when there is no STUN server to
/// ask is `gatewayIP`, the host of the proxy's UDP relay, returned.
///
/// Blocks for 1.5 seconds per server and `timeoutSecs` in all at most, the lookup of the servers'
/// names included, or until `stop` is raised. Each step is a line for `log`. Any thread.
/// Throws std::system_error when there is no memory to receive into, or the socket fails.
Egress probeEgressIP(DatagramSocket& socket, const Endpoint& relayAddr,
                     const std::string& gatewayIP, int timeoutSecs, const LogCallback& log,
                     const StopSignal* stop = nullptr);

}  // namespace zk
