// The interfaces and routes as the kernel knows them, by rtnetlink: the tables are dumped where a
// rule goes beyond what the kernel decides, and the kernel is asked for its decision elsewhere.

#include "Platform/Interfaces.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <unistd.h>

#include "Base/Bytes.h"
#include "Platform/Descriptor.h"
#include "Platform/Sockets.h"

namespace zk {
namespace {

constexpr std::uint32_t noDefaultRoute = std::numeric_limits<std::uint32_t>::max();
constexpr int mostStacked = 8;  // bridge over bond over VLAN ...; an end for what forms a ring

// Calls `visit` with the type of every attribute of a netlink payload and the attribute.
template <typename Visit>
void forEachAttribute(const rtattr* attribute, std::size_t length, Visit visit) {
  int left = static_cast<int>(length);
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    visit(attribute->rta_type & NLA_TYPE_MASK, attribute);
  }
}

ByteView valueOf(const rtattr* attribute) {
  return {static_cast<const std::uint8_t*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute)};
}

std::string textOf(const rtattr* attribute) {
  const auto* text = static_cast<const char*>(RTA_DATA(attribute));
  return {text, strnlen(text, RTA_PAYLOAD(attribute))};
}

std::uint32_t numberOf(const rtattr* attribute) {
  std::uint32_t number = 0;
  std::memcpy(&number, RTA_DATA(attribute), std::min(sizeof number, RTA_PAYLOAD(attribute)));
  return number;
}

ByteView addressOf(const sockaddr& address) {
  if (address.sa_family == AF_INET6) {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    return {reinterpret_cast<const std::uint8_t*>(&in6), sizeof in6};
  }
  const auto& in = reinterpret_cast<const sockaddr_in&>(address).sin_addr;
  return {reinterpret_cast<const std::uint8_t*>(&in), sizeof in};
}

bool sharePrefix(ByteView a, ByteView b, unsigned bits) {
  for (std::size_t i = 0; i < a.size() && bits > 0; ++i) {
    const unsigned here = std::min(bits, 8U);
    const auto mask = static_cast<std::uint8_t>(0xFF << (8 - here));
    if (((a[i] ^ b[i]) & mask) != 0) {
      return false;
    }
    bits -= here;
  }
  return true;
}

struct Route {
  bool isUnicast = false;
  bool isLocal = false;  // an address of this machine
  unsigned table = RT_TABLE_UNSPEC;
  unsigned prefixLength = 0;
  Bytes destination{};  // empty for a default route
  std::uint32_t metric = 0;
  bool hasGateway = false;
  std::vector<unsigned> interfaces{};  // more than one when the traffic is spread

  bool covers(ByteView address) const {
    return destination.empty() ? prefixLength == 0
                               : destination.size() == address.size() &&
                                     sharePrefix(destination, address, prefixLength);
  }
};

Route readRoute(const nlmsghdr* message) {
  const auto* info = static_cast<const rtmsg*>(NLMSG_DATA(message));
  Route route;
  route.isUnicast = info->rtm_type == RTN_UNICAST;
  route.isLocal = info->rtm_type == RTN_LOCAL;
  route.table = info->rtm_table;
  route.prefixLength = info->rtm_dst_len;
  forEachAttribute(RTM_RTA(info), RTM_PAYLOAD(message), [&](int type, const rtattr* attribute) {
    if (type == RTA_DST) {
      const ByteView value = valueOf(attribute);
      route.destination.assign(value.begin(), value.end());
    } else if (type == RTA_PRIORITY) {
      route.metric = numberOf(attribute);
    } else if (type == RTA_OIF) {
      route.interfaces.push_back(numberOf(attribute));
    } else if (type == RTA_GATEWAY || type == RTA_VIA) {
      route.hasGateway = true;
    } else if (type == RTA_MULTIPATH) {
      const auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute));
      int left = static_cast<int>(RTA_PAYLOAD(attribute));
      while (left >= static_cast<int>(sizeof *hop) && RTNH_OK(hop, left)) {
        route.interfaces.push_back(static_cast<unsigned>(hop->rtnh_ifindex));
        left -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len));
        hop = RTNH_NEXT(hop);
      }
    }
  });
  return route;
}

// One conversation with the kernel.
class Netlink {
 public:
  // Everything of one kind. Whether the answer came whole; never when there is no socket.
  template <typename Visit>
  bool dump(std::uint16_t type, int family, Visit visit) {
    Request request;
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_DUMP;
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
    request.route.rtm_family = static_cast<unsigned char>(family);
    return ask(request, visit);
  }

  // The route that the kernel would take to `destination`, by that interface when it is not 0.
  std::optional<Route> routeTo(const sockaddr& destination, unsigned interface) {
    const ByteView address = addressOf(destination);
    Request request;
    request.header.nlmsg_type = RTM_GETROUTE;
    request.route.rtm_family = static_cast<unsigned char>(destination.sa_family);
    request.route.rtm_dst_len = static_cast<unsigned char>(address.size() * 8);
    // The entry of the table, and a failure when there is none. Without this the kernel answers
    // that a destination without a route is a neighbour on `interface`.
    request.route.rtm_flags = RTM_F_FIB_MATCH;
    request.add(RTA_DST, address.data(), address.size());
    if (interface != 0) {
      request.add(RTA_OIF, &interface, sizeof interface);
    }
    std::optional<Route> found;
    ask(request, [&](const nlmsghdr* message) { found = readRoute(message); });
    return found;
  }

 private:
  struct Request {
    nlmsghdr header{};
    rtmsg route{};  // of which a dump has the family only
    std::uint8_t attributes[64]{};

    Request() { header.nlmsg_len = NLMSG_LENGTH(sizeof route); }
    void add(unsigned short type, const void* value, std::size_t length) {
      auto* attribute = reinterpret_cast<rtattr*>(reinterpret_cast<std::uint8_t*>(this) +
                                                  NLMSG_ALIGN(header.nlmsg_len));
      attribute->rta_type = type;
      attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
      std::memcpy(RTA_DATA(attribute), value, length);
      header.nlmsg_len = NLMSG_ALIGN(header.nlmsg_len) + RTA_ALIGN(attribute->rta_len);
    }
  };

  template <typename Visit>
  bool ask(Request& request, Visit visit) {
    request.header.nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
    request.header.nlmsg_seq = ++asked_;
    if (send(socket_.get(), &request, request.header.nlmsg_len, 0) < 0) {
      return false;
    }
    while (true) {
      const ssize_t received =
          recv(socket_.get(), buffer_.data(), buffer_.size() * sizeof buffer_[0], 0);
      if (received <= 0) {
        return false;
      }
      auto left = static_cast<unsigned>(received);
      for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer_.data());
           NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_seq != asked_) {
          continue;
        }
        if (message->nlmsg_type == NLMSG_DONE) {
          return true;
        }
        if (message->nlmsg_type == NLMSG_ERROR) {
          return static_cast<const nlmsgerr*>(NLMSG_DATA(message))->error == 0;
        }
        visit(message);
      }
    }
  }

  const Descriptor socket_{openSocket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE)};
  std::uint32_t asked_ = 0;
  std::vector<std::uint32_t> buffer_ = std::vector<std::uint32_t>(16384);  // 64 KiB, aligned
};

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
  // Every interface gives itself a link-local IPv6 address; that carries nothing anywhere.
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

std::vector<NetworkInterface> availableInterfaces() {
  Netlink netlink;
  Links links;
  const bool isComplete =
      netlink.dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr* m) { noteLink(links, m); }) &&
      netlink.dump(RTM_GETADDR, AF_UNSPEC, [&](const nlmsghdr* m) { noteAddress(links, m); }) &&
      netlink.dump(RTM_GETROUTE, AF_UNSPEC, [&](const nlmsghdr* m) { noteDefaultRoute(links, m); });
  if (!isComplete) {
    return {};
  }
  std::vector<std::pair<std::uint32_t, NetworkInterface>> found;
  for (const auto& [index, link] : links) {
    const bool isUp = (link.flags & IFF_UP) != 0 && (link.flags & IFF_LOWER_UP) != 0;
    if (isUp && link.hasAddress) {
      found.push_back({link.metric, {link.name, index, typeOf(links, index)}});
    }
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<NetworkInterface> interfaces;
  for (auto& [metric, interface] : found) {
    interfaces.push_back(std::move(interface));
  }
  return interfaces;
}

bool hasRoute(unsigned interfaceIndex, const sockaddr& destination) {
  return Netlink().routeTo(destination, interfaceIndex).has_value();
}

std::optional<LinkRoute> linkRouteTo(const sockaddr& destination) {
  const ByteView address = addressOf(destination);
  std::optional<Route> best;
  Netlink().dump(RTM_GETROUTE, destination.sa_family, [&](const nlmsghdr* message) {
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

bool isOwnAddress(const sockaddr& destination) {
  const auto route = Netlink().routeTo(destination, 0);
  return route && route->isLocal;
}

RouteWatch::RouteWatch()
    : socket_(openSocket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, NETLINK_ROUTE)) {
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_RULE;
  if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&groups), sizeof groups) != 0) {
    socket_.reset();
  }
}

void RouteWatch::drain() {
  std::array<std::uint8_t, 4096> discarded;
  // ENOBUFS says that some were lost, and so there is a change all the same.
  while (recv(socket_.get(), discarded.data(), discarded.size(), 0) > 0 || errno == ENOBUFS) {
    errno = 0;
  }
}

}  // namespace zk
