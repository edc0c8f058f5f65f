#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include <net/route.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace zk {

bool isLinkLocal(std::span<const std::uint8_t> octets);

/// One entry of the routing table (route(4)).
struct Route {
  unsigned interfaceIndex = 0;
  int flags = 0;
  std::array<std::uint8_t, sizeof(in6_addr)> network{};
  unsigned prefixLength = 0;

  bool isScoped() const { return (flags & RTF_IFSCOPE) != 0; }
  bool leadsTo(std::span<const std::uint8_t> destination) const;
};

/// What the routing table holds for a family, in the system's order, without what it has derived
/// from other routes for single neighbours. Throws LookFailed.
std::vector<Route> routesOf(int family);

}  // namespace zk
