#pragma once

#include <string>

#include <netinet/in.h>

namespace zk {

/// Finds the address at which a proxy's traffic leaves towards the internet, which is the address
/// that a client's peers will see.
///
/// It asks STUN servers (ZK_STUN_IPS, or three public ones) one after the other through the relay
/// on `udpFD`, a bound UDP socket that nobody else reads, and takes the first answer. Without one
/// it falls back to the last address found for the same gateway, and else returns empty text: it
/// never takes the gateway for the egress address. Only when there is no STUN server to ask is
/// `gatewayIP`, the host of the proxy's UDP relay, returned.
///
/// Blocks for 1.5 seconds per server and `timeoutSecs` in all at most. Each step is a line in
/// /tmp/zk-egress.log. Any thread; never throws.
std::string probeEgressIP(int udpFD, const sockaddr_in& relayAddr, const std::string& gatewayIP,
                          int timeoutSecs);

}  // namespace zk
