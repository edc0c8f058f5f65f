// Where the kernel decides by itself, it is asked for its decision; where our rules go further, its
// tables are read.

#include "Platform/Interfaces.h"

#include <algorithm>
#include <limits>
#include <map>
#include <utility>

#include <linux/if.h>
#include <linux/if_arp.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "Platform/linux/Netlink.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

constexpr std::uint32_t noDefaultRoute = std::numeric_limits<std::uint32_t>::max();
constexpr int mostStacked = 8;  // bridge over bond over VLAN ...; ends a search in circles

struct Link {
  std::string name{};
  std::string kind{};  // "bridge", "veth", "tun", ...; empty for hardware
  unsigned short hardwareType = 0;
  unsigned flags = 0;
  unsigned master = 0;            // the bridge or bond that it is a port of
  unsigned lower = 0;             // what it is stacked on
  bool isLowerElsewhere = false;  // in another network namespace
  bool hasAddress = false;
  std::uint32_t metric = noDefaultRoute;

  bool isUsable() const {
    return (flags & IFF_UP) != 0 && (flags & IFF_LOWER_UP) != 0 && hasAddress;
  }
};
using Links = std::map<unsigned, Link>;  // by interface index

void noteLink(Links& links, const nlmsghdr* message) {
  const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
  Link& link = links[static_cast<unsigned>(info->ifi_index)];
  link.hardwareType = info->ifi_type;
  link.flags = info->ifi_flags;
  forEachAttribute(IFLA_RTA(info), IFLA_PAYLOAD(message), [&](int type, const rtattr* attribute) {
    if (type == IFLA_IFNAME) {
      link.name = textOf(attribute);
    } else if (type == IFLA_MASTER) {
      link.master = numberOf(attribute);
    } else if (type == IFLA_LINK) {
      link.lower = numberOf(attribute);
    } else if (type == IFLA_LINK_NETNSID) {
      link.isLowerElsewhere = true;
    } else if (type == IFLA_LINKINFO) {
      forEachAttribute(static_cast<const rtattr*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute),
                       [&](int nested, const rtattr* value) {
                         if (nested == IFLA_INFO_KIND) {
                           link.kind = textOf(value);
                         }
                       });
    }
  });
}

void noteAddress(Links& links, const nlmsghdr* message) {
  const auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(message));
  const auto link = links.find(info->ifa_index);
  // Every interface has a link-local IPv6 address, which leads nowhere.
  if (link != links.end() &&
      (info->ifa_family == AF_INET || info->ifa_scope == RT_SCOPE_UNIVERSE)) {
    link->second.hasAddress = true;
  }
}

void noteDefaultRoute(Links& links, const nlmsghdr* message) {
  const Route route = readRoute(message);
  if (!route.isUnicast || route.prefixLength != 0 || route.table != RT_TABLE_MAIN) {
    return;
  }
  for (const unsigned index : route.interfaces) {
    if (const auto link = links.find(index); link != links.end()) {
      link->second.metric = std::min(link->second.metric, route.metric);
    }
  }
}

Links readLinks(Netlink& netlink) {
  Links links;
  netlink.dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr* m) { noteLink(links, m); });
  netlink.dump(RTM_GETADDR, AF_UNSPEC, [&](const nlmsghdr* m) { noteAddress(links, m); });
  return links;
}

bool isWiFi(const std::string& name) {
  const std::string device = "/sys/class/net/" + name;
  return access((device + "/wireless").c_str(), F_OK) == 0 ||
         access((device + "/phy80211").c_str(), F_OK) == 0;
}

InterfaceType typeOf(const Links& links, unsigned index, int stacked = 0) {
  const auto found = links.find(index);
  if (found == links.end() || stacked == mostStacked) {
    return InterfaceType::other;
  }
  const Link& link = found->second;
  if (isWiFi(link.name)) {
    return InterfaceType::wifi;
  }
  if (link.hardwareType != ARPHRD_ETHER) {
    return InterfaceType::other;
  }
  const auto isOneOf = [&](auto... kinds) { return ((link.kind == kinds) || ...); };
  if (isOneOf("", "veth")) {
    return InterfaceType::wiredEthernet;  // a veth end is all the hardware that a container has
  }
  if (isOneOf("vlan", "macvlan", "ipvlan")) {
    return link.isLowerElsewhere ? InterfaceType::wiredEthernet
                                 : typeOf(links, link.lower, stacked + 1);
  }
  if (isOneOf("bridge", "bond", "team")) {
    for (const auto& [port, candidate] : links) {
      const bool isContainer = link.kind == "bridge" && candidate.kind == "veth";
      if (candidate.master == index && !isContainer) {
        const InterfaceType type = typeOf(links, port, stacked + 1);
        if (type != InterfaceType::other) {
          return type;
        }
      }
    }
  }
  return InterfaceType::other;
}

}  // namespace

struct Interfaces::System : Netlink {};

Interfaces::Interfaces() : system_(std::make_unique<System>()) {}

Interfaces::~Interfaces() = default;

std::vector<NetworkInterface> Interfaces::available() {
  Links links = readLinks(*system_);
  system_->dump(RTM_GETROUTE, AF_UNSPEC, [&](const nlmsghdr* m) { noteDefaultRoute(links, m); });
  std::multimap<std::uint32_t, NetworkInterface> found;  // by metric
  for (const auto& [index, link] : links) {
    if (link.isUsable()) {
      found.insert({link.metric, {link.name, index, typeOf(links, index)}});
    }
  }
  std::vector<NetworkInterface> interfaces;
  for (auto& [metric, interface] : found) {
    interfaces.push_back(std::move(interface));
  }
  return interfaces;
}

InterfaceState Interfaces::stateOf(unsigned interfaceIndex) {
  const Links links = readLinks(*system_);
  const auto link = links.find(interfaceIndex);
  return link == links.end()       ? InterfaceState::gone
         : link->second.isUsable() ? InterfaceState::usable
                                   : InterfaceState::unusable;
}

bool Interfaces::hasRoute(unsigned interfaceIndex, const sockaddr& destination) {
  return system_->routeTo(destination, interfaceIndex).has_value();
}

std::optional<LinkRoute> Interfaces::linkRouteTo(const sockaddr& destination) {
  const ByteView address = octetsOf(destination);
  std::optional<Route> best;
  system_->dump(RTM_GETROUTE, destination.sa_family, [&](const nlmsghdr* message) {
    Route route = readRoute(message);
    const auto rank = [](const Route& of) { return std::pair(-int(of.prefixLength), of.metric); };
    if (route.isUnicast && route.covers(address) && (!best || rank(route) < rank(*best))) {
      best = std::move(route);
    }
  });
  if (!best || best->hasGateway || best->interfaces.size() != 1) {
    return std::nullopt;
  }
  return LinkRoute{best->interfaces.front(), best->prefixLength};
}

bool Interfaces::isOwnAddress(const sockaddr& destination) {
  const auto route = system_->routeTo(destination, 0);
  return route && route->isLocal;
}

RouteWatch::RouteWatch() : socket_(openNonBlockingSocket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE)) {
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_RULE;
  require(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&groups), sizeof groups) == 0,
          "netlink");
}

}  // namespace zk
