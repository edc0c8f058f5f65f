// The routing table as sysctl hands it out (sysctl(3), route(4)).

#include "Platform/macos/RoutingTable.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <sys/sysctl.h>

#include "Platform/Interfaces.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

// The addresses behind a routing message: destination, gateway and mask, where they are there.
// Each takes its length rounded up to four octets, and four when it is empty.
std::array<std::span<const std::uint8_t>, RTAX_MAX> addressesOf(
    int present, std::span<const std::uint8_t> octets) {
  std::array<std::span<const std::uint8_t>, RTAX_MAX> addresses;
  for (unsigned i = 0; i < addresses.size(); ++i) {
    if ((present & 1 << i) == 0) {
      continue;
    }
    if (octets.empty()) {
      break;
    }
    const std::size_t length = std::min<std::size_t>(octets[0], octets.size());
    addresses[i] = octets.first(length);
    octets = octets.subspan(std::min(length == 0 ? 4 : (length + 3) / 4 * 4, octets.size()));
  }
  return addresses;
}

// How many bits of a mask are set. Masks are cut behind their last octet that is not zero.
unsigned prefixOf(std::span<const std::uint8_t> mask, std::size_t offset) {
  unsigned bits = 0;
  for (std::size_t i = offset; i < mask.size(); ++i) {
    bits += static_cast<unsigned>(__builtin_popcount(mask[i]));
  }
  return bits;
}

Route routeOf(const rt_msghdr& header, std::span<const std::uint8_t> rest, int family) {
  const auto addresses = addressesOf(header.rtm_addrs, rest);
  const std::size_t offset =
      family == AF_INET ? offsetof(sockaddr_in, sin_addr) : offsetof(sockaddr_in6, sin6_addr);
  const std::size_t length = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  Route route;
  route.interfaceIndex = header.rtm_index;
  route.flags = header.rtm_flags;
  const auto destination = addresses[RTAX_DST];
  if (destination.size() > offset) {
    const auto octets = destination.subspan(offset);
    std::copy_n(octets.begin(), std::min(octets.size(), length), route.network.begin());
  }
  if (isLinkLocal(std::span(route.network).first(length))) {
    route.network[2] = route.network[3] = 0;  // where the kernel keeps the interface's index
  }
  const auto mask =
      addresses[RTAX_NETMASK].first(std::min(addresses[RTAX_NETMASK].size(), offset + length));
  route.prefixLength = (header.rtm_flags & RTF_HOST) != 0 ? static_cast<unsigned>(8 * length)
                                                          : prefixOf(mask, offset);
  return route;
}

}  // namespace

bool isLinkLocal(std::span<const std::uint8_t> octets) {
  return octets.size() == sizeof(in6_addr) && octets[0] == 0xFE && (octets[1] & 0xC0) == 0x80;
}

bool Route::leadsTo(std::span<const std::uint8_t> destination) const {
  return sharePrefix(network.data(), destination.data(), prefixLength);
}

std::vector<Route> routesOf(int family) {
  std::array<int, 6> name{CTL_NET, PF_ROUTE, 0, family, NET_RT_DUMP, 0};
  std::vector<std::uint32_t> table;  // aligned for the headers
  std::size_t size = 0;
  bool isComplete = false;
  // The table may have grown between being asked for its size and its content.
  for (int attempt = 0; attempt < 3 && !isComplete; ++attempt) {
    if (sysctl(name.data(), name.size(), nullptr, &size, nullptr, 0) == 0) {
      table.resize(size / sizeof table[0] + 1024);
      size = table.size() * sizeof table[0];
      isComplete = sysctl(name.data(), name.size(), table.data(), &size, nullptr, 0) == 0;
    }
  }
  if (!isComplete) {
    throw LookFailed(errno, std::generic_category(), "sysctl");
  }
  std::vector<Route> routes;
  std::span left(reinterpret_cast<const std::uint8_t*>(table.data()), size);
  while (left.size() >= sizeof(rt_msghdr)) {
    rt_msghdr header;
    std::memcpy(&header, left.data(), sizeof header);
    if (header.rtm_msglen < sizeof header || header.rtm_msglen > left.size()) {
      break;
    }
    constexpr int unusable = RTF_REJECT | RTF_BLACKHOLE | RTF_WASCLONED | RTF_LLINFO;
    if ((header.rtm_flags & RTF_UP) != 0 && (header.rtm_flags & unusable) == 0 &&
        (header.rtm_addrs & RTA_DST) != 0) {
      routes.push_back(
          routeOf(header, left.first(header.rtm_msglen).subspan(sizeof header), family));
    }
    left = left.subspan(header.rtm_msglen);
  }
  return routes;
}

}  // namespace zk
