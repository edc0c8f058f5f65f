// Interfaces come from getifaddrs, their routes from the routing table.

#include "Platform/Interfaces.h"

#include <algorithm>
#include <cerrno>

#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_dl.h>
#include <sys/ioctl.h>
#include <sys/sockio.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "Platform/macos/RoutingTable.h"
#include "Platform/posix/System.h"

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

struct Release {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};
using Addresses = std::unique_ptr<ifaddrs, Release>;

Addresses readAddresses() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    throw LookFailed(errno, std::generic_category(), "getifaddrs");
  }
  return Addresses(list);
}

struct Link {
  NetworkInterface interface;
  unsigned linkType = 0;
  bool isUp = false;
  bool hasAddress = false;

  bool isUsable() const { return isUp && hasAddress; }
};

// Tells the type of a link and whether it is connected.
void look(Link& link, int socket) {
  ifmediareq media{};
  link.interface.name.copy(media.ifm_name, sizeof media.ifm_name - 1);
  if (ioctl(socket, SIOCGIFMEDIA, &media) != 0) {
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

// In the order of getifaddrs, which is that in which the system found its hardware: en0 first.
std::vector<Link> readLinks(int socket) {
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
  for (Link& link : links) {
    look(link, socket);
  }
  return links;
}

}  // namespace

struct Interfaces::System {
  Descriptor socket;  // for questions about media
};

Interfaces::Interfaces()
    : system_(std::make_unique<System>(System{openForLooks(AF_INET, SOCK_DGRAM)})) {}

Interfaces::~Interfaces() = default;

std::vector<NetworkInterface> Interfaces::available() {
  std::vector<Link> links = readLinks(system_->socket.get());
  std::erase_if(links, [](const Link& link) { return !link.isUsable(); });
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

InterfaceState Interfaces::stateOf(unsigned interfaceIndex) {
  for (const Link& link : readLinks(system_->socket.get())) {
    if (link.interface.index == interfaceIndex) {
      return link.isUsable() ? InterfaceState::usable : InterfaceState::unusable;
    }
  }
  return InterfaceState::gone;
}

bool Interfaces::hasRoute(unsigned interfaceIndex, const sockaddr& destination) {
  const auto octets = octetsOf(destination);
  const std::vector<Route> routes = routesOf(destination.sa_family);
  return std::any_of(routes.begin(), routes.end(), [&](const Route& route) {
    return (interfaceIndex == 0 || route.interfaceIndex == interfaceIndex) && route.leadsTo(octets);
  });
}

std::optional<LinkRoute> Interfaces::linkRouteTo(const sockaddr& destination) {
  const auto octets = octetsOf(destination);
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

bool Interfaces::isOwnAddress(const sockaddr& destination) {
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

RouteWatch::RouteWatch() : socket_(openNonBlockingSocket(PF_ROUTE, SOCK_RAW, AF_INET)) {}

}  // namespace zk
