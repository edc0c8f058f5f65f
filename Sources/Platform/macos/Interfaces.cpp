// Interfaces come from getifaddrs, routes from the routing table as sysctl hands it out (route(4)).

#include "Platform/Interfaces.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_dl.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/sockio.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include "Platform/Descriptor.h"

namespace zk {
namespace {

// Of net/if_types.h: Ethernet, which Wi-Fi is as well, and what is stacked on it.
constexpr unsigned ethernetType = 0x06;
constexpr unsigned vlanType = 0x87;
constexpr unsigned bondType = 0x88;

// Of net/if_media.h: the kind of medium, and of its status, whether it is known and connected.
constexpr int mediaKind = 0xE0;
constexpr int mediaWiFi = 0x80;
constexpr int statusKnown = 0x1;
constexpr int statusActive = 0x2;

// ---- Addresses ---------------------------------------------------------------------------------

// The octets of an IPv4 or IPv6 address; none for another family.
std::span<const std::uint8_t> octetsOf(const sockaddr& address) {
  const auto* const raw = reinterpret_cast<const std::uint8_t*>(&address);
  switch (address.sa_family) {
    case AF_INET:
      return {raw + offsetof(sockaddr_in, sin_addr), sizeof(in_addr)};
    case AF_INET6:
      return {raw + offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr)};
    default:
      return {};
  }
}

bool isLinkLocal(std::span<const std::uint8_t> octets) {
  return octets.size() == sizeof(in6_addr) && octets[0] == 0xFE && (octets[1] & 0xC0) == 0x80;
}

// ---- Routes ------------------------------------------------------------------------------------

struct Route {
  unsigned interfaceIndex = 0;
  int flags = 0;
  std::array<std::uint8_t, sizeof(in6_addr)> network{};
  unsigned prefixLength = 0;

  bool isScoped() const { return (flags & RTF_IFSCOPE) != 0; }
  bool leadsTo(std::span<const std::uint8_t> destination) const;
};

bool Route::leadsTo(std::span<const std::uint8_t> destination) const {
  for (unsigned bit = 0; bit < prefixLength; ++bit) {
    const unsigned mask = 0x80U >> bit % 8;
    if (((network[bit / 8] ^ destination[bit / 8]) & mask) != 0) {
      return false;
    }
  }
  return true;
}

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

// What the routing table holds for a family, in the system's order, without what it has derived
// from other routes for single neighbours.
std::vector<Route> routesOf(int family) {
  std::array<int, 6> name{CTL_NET, PF_ROUTE, 0, family, NET_RT_DUMP, 0};
  std::vector<std::uint32_t> table;  // aligned for the headers
  std::size_t size = 0;
  bool isComplete = false;
  // The table may have grown between being asked for its size and its content.
  for (int attempt = 0; attempt < 3 && !isComplete; ++attempt) {
    if (sysctl(name.data(), name.size(), nullptr, &size, nullptr, 0) != 0) {
      return {};
    }
    table.resize(size / sizeof table[0] + 1024);
    size = table.size() * sizeof table[0];
    isComplete = sysctl(name.data(), name.size(), table.data(), &size, nullptr, 0) == 0;
  }
  std::vector<Route> routes;
  std::span left(reinterpret_cast<const std::uint8_t*>(table.data()), isComplete ? size : 0);
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

// ---- Interfaces --------------------------------------------------------------------------------

struct Release {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};
using Addresses = std::unique_ptr<ifaddrs, Release>;

Addresses readAddresses() {
  ifaddrs* list = nullptr;
  return Addresses(getifaddrs(&list) == 0 ? list : nullptr);
}

struct Link {
  NetworkInterface interface;
  unsigned linkType = 0;
  bool isUp = false;
  bool hasAddress = false;
};

// In the order of getifaddrs, which is that in which the system found its hardware: en0 first.
std::vector<Link> readLinks() {
  std::vector<Link> links;
  const Addresses addresses = readAddresses();
  for (const ifaddrs* entry = addresses.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) {
      continue;
    }
    if (entry->ifa_addr->sa_family == AF_LINK) {  // the first entry of each
      const auto* const link = reinterpret_cast<const sockaddr_dl*>(entry->ifa_addr);
      constexpr unsigned upAndRunning = IFF_UP | IFF_RUNNING;
      links.push_back({{entry->ifa_name, link->sdl_index, InterfaceType::other},
                       link->sdl_type,
                       (entry->ifa_flags & upAndRunning) == upAndRunning,
                       false});
      continue;
    }
    const auto octets = octetsOf(*entry->ifa_addr);
    for (Link& link : links) {
      if (!octets.empty() && !isLinkLocal(octets) && link.interface.name == entry->ifa_name) {
        link.hasAddress = true;
      }
    }
  }
  return links;
}

// Tells the type of a link and whether it is connected.
void look(Link& link) {
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  ifmediareq media{};
  link.interface.name.copy(media.ifm_name, sizeof media.ifm_name - 1);
  if (!socket || ioctl(socket.get(), SIOCGIFMEDIA, &media) != 0) {
    return;  // whatever has no medium is not hardware
  }
  if ((media.ifm_status & (statusKnown | statusActive)) == statusKnown) {
    link.isUp = false;
  }
  const unsigned type = link.linkType;
  if (type == ethernetType || type == vlanType || type == bondType) {
    link.interface.type = (media.ifm_current & mediaKind) == mediaWiFi
                              ? InterfaceType::wifi
                              : InterfaceType::wiredEthernet;
  }
}

}  // namespace

std::vector<NetworkInterface> availableInterfaces() {
  std::vector<Link> links = readLinks();
  std::erase_if(links, [](Link& link) {
    look(link);
    return !link.isUp || !link.hasAddress;
  });
  // The system keeps one default route for everybody, and one for sockets that are bound to an
  // interface for each other interface that has a router.
  std::vector<Route> routes = routesOf(AF_INET);
  const std::vector<Route> routes6 = routesOf(AF_INET6);
  routes.insert(routes.end(), routes6.begin(), routes6.end());
  const auto rank = [&](const Link& link) {
    int best = 2;
    for (const Route& route : routes) {
      if (route.interfaceIndex == link.interface.index && route.prefixLength == 0) {
        best = std::min(best, route.isScoped() ? 1 : 0);
      }
    }
    return best;
  };
  std::stable_sort(links.begin(), links.end(),
                   [&](const Link& a, const Link& b) { return rank(a) < rank(b); });
  std::vector<NetworkInterface> interfaces;
  for (Link& link : links) {
    interfaces.push_back(std::move(link.interface));
  }
  return interfaces;
}

bool hasRoute(unsigned interfaceIndex, const sockaddr& destination) {
  const auto octets = octetsOf(destination);
  const std::vector<Route> routes =
      octets.empty() ? std::vector<Route>() : routesOf(destination.sa_family);
  return std::any_of(routes.begin(), routes.end(), [&](const Route& route) {
    return route.interfaceIndex == interfaceIndex && route.leadsTo(octets);
  });
}

std::optional<LinkRoute> linkRouteTo(const sockaddr& destination) {
  const auto octets = octetsOf(destination);
  if (octets.empty()) {
    return std::nullopt;
  }
  const std::vector<Route> routes = routesOf(destination.sa_family);
  const Route* best = nullptr;
  for (const Route& route : routes) {
    const bool isBetter = best == nullptr || route.prefixLength > best->prefixLength ||
                          (route.prefixLength == best->prefixLength && best->isScoped());
    if (route.leadsTo(octets) && isBetter) {
      best = &route;
    }
  }
  if (best == nullptr || (best->flags & RTF_GATEWAY) != 0) {
    return std::nullopt;
  }
  return LinkRoute{best->interfaceIndex, best->prefixLength};
}

bool isOwnAddress(const sockaddr& destination) {
  const auto wanted = octetsOf(destination);
  const Addresses addresses = readAddresses();
  if (destination.sa_family == AF_INET && wanted[0] == 127) {
    return true;
  }
  for (const ifaddrs* entry = addresses.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == destination.sa_family) {
      const auto own = octetsOf(*entry->ifa_addr);
      if (!own.empty() && std::equal(own.begin(), own.end(), wanted.begin(), wanted.end())) {
        return true;
      }
    }
  }
  return false;
}

RouteWatch::RouteWatch() : socket_(socket(PF_ROUTE, SOCK_RAW, AF_INET)) {
  fcntl(socket_.get(), F_SETFD, FD_CLOEXEC);
  fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
}

void RouteWatch::drain() {
  std::array<std::uint8_t, 4096> discarded;
  while (read(socket_.get(), discarded.data(), discarded.size()) > 0) {
  }
}

}  // namespace zk
