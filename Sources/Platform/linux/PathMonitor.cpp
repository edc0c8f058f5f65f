#include "Platform/PathMonitor.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Sockets.h"

namespace zk {
namespace {

constexpr std::uint32_t noDefaultRoute = std::numeric_limits<std::uint32_t>::max();

struct Link {
  std::string name;
  std::string kind;  // "bridge", "veth", "tun", ...; empty for hardware
  unsigned short hardwareType = 0;
  unsigned flags = 0;
  bool hasIPv4 = false;
  std::uint32_t metric = noDefaultRoute;
};
using Links = std::map<unsigned, Link>;  // by interface index

// Calls `visit` with every attribute of a netlink payload.
template <typename Visit>
void forEachAttribute(const rtattr* attribute, std::size_t length, Visit visit) {
  int left = static_cast<int>(length);
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    visit(attribute->rta_type & NLA_TYPE_MASK, attribute);
  }
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

void noteLink(Links& links, const nlmsghdr* message) {
  const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
  Link& link = links[static_cast<unsigned>(info->ifi_index)];
  link.hardwareType = info->ifi_type;
  link.flags = info->ifi_flags;
  forEachAttribute(IFLA_RTA(info), IFLA_PAYLOAD(message), [&](int type, const rtattr* attribute) {
    if (type == IFLA_IFNAME) {
      link.name = textOf(attribute);
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
  if (info->ifa_family == AF_INET && link != links.end()) {
    link->second.hasIPv4 = true;
  }
}

void noteDefaultRoute(Links& links, unsigned index, std::uint32_t metric) {
  const auto link = links.find(index);
  if (link != links.end()) {
    link->second.metric = std::min(link->second.metric, metric);
  }
}

void noteRoute(Links& links, const nlmsghdr* message) {
  const auto* info = static_cast<const rtmsg*>(NLMSG_DATA(message));
  if (info->rtm_family != AF_INET || info->rtm_dst_len != 0 || info->rtm_table != RT_TABLE_MAIN ||
      info->rtm_type != RTN_UNICAST) {
    return;
  }
  std::uint32_t metric = 0;
  std::vector<unsigned> indexes;
  forEachAttribute(RTM_RTA(info), RTM_PAYLOAD(message), [&](int type, const rtattr* attribute) {
    if (type == RTA_PRIORITY) {
      metric = numberOf(attribute);
    } else if (type == RTA_OIF) {
      indexes.push_back(numberOf(attribute));
    } else if (type == RTA_MULTIPATH) {
      const auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute));
      int left = static_cast<int>(RTA_PAYLOAD(attribute));
      while (left >= static_cast<int>(sizeof *hop) && RTNH_OK(hop, left)) {
        indexes.push_back(static_cast<unsigned>(hop->rtnh_ifindex));
        left -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len));
        hop = RTNH_NEXT(hop);
      }
    }
  });
  for (const unsigned index : indexes) {
    noteDefaultRoute(links, index, metric);
  }
}

// Asks the kernel for everything of one kind and calls `visit` with each message. Whether the
// answer came whole.
template <typename Visit>
bool dump(int netlink, std::uint16_t type, Visit visit) {
  struct {
    nlmsghdr header;
    rtgenmsg general;
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.general);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = type;
  // Links have no address family; addresses and routes are wanted for IPv4.
  request.general.rtgen_family = type == RTM_GETLINK ? AF_UNSPEC : AF_INET;
  if (send(netlink, &request, request.header.nlmsg_len, 0) < 0) {
    return false;
  }
  std::vector<std::uint32_t> buffer(16384);  // 64 KiB, aligned for the headers
  while (true) {
    const ssize_t received = recv(netlink, buffer.data(), buffer.size() * sizeof buffer[0], 0);
    if (received <= 0) {
      return false;
    }
    auto left = static_cast<unsigned>(received);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
      if (message->nlmsg_seq != type) {
        continue;
      }
      if (message->nlmsg_type == NLMSG_DONE) {
        return true;
      }
      if (message->nlmsg_type == NLMSG_ERROR) {
        return false;
      }
      visit(message);
    }
  }
}

bool isWiFi(const std::string& name) {
  const std::string device = "/sys/class/net/" + name;
  return access((device + "/wireless").c_str(), F_OK) == 0 ||
         access((device + "/phy80211").c_str(), F_OK) == 0;
}

InterfaceType typeOf(const Link& link) {
  if (isWiFi(link.name)) {
    return InterfaceType::wifi;
  }
  const bool isHardware = link.kind.empty() || link.kind == "veth";
  return link.hardwareType == ARPHRD_ETHER && isHardware ? InterfaceType::wiredEthernet
                                                         : InterfaceType::other;
}

std::optional<Links> readLinks() {
  const int netlink = openSocket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  if (netlink < 0) {
    return std::nullopt;
  }
  Links links;
  const bool complete =
      dump(netlink, RTM_GETLINK, [&](const nlmsghdr* m) { noteLink(links, m); }) &&
      dump(netlink, RTM_GETADDR, [&](const nlmsghdr* m) { noteAddress(links, m); }) &&
      dump(netlink, RTM_GETROUTE, [&](const nlmsghdr* m) { noteRoute(links, m); });
  closeSocket(netlink);
  return complete ? std::optional(std::move(links)) : std::nullopt;
}

}  // namespace

std::vector<NetworkInterface> availableInterfaces() {
  const std::optional<Links> links = readLinks();
  if (!links) {
    return {};
  }
  std::vector<std::pair<std::uint32_t, NetworkInterface>> found;
  for (const auto& [index, link] : *links) {
    const bool isUsable =
        (link.flags & IFF_UP) != 0 && (link.flags & IFF_LOWER_UP) != 0 && link.hasIPv4;
    if (isUsable) {
      found.push_back({link.metric, {link.name, index, typeOf(link)}});
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

struct PathMonitor::State {
  std::mutex lock;  // held while the handler runs
  Handler handler;  // guarded by lock; absent once cancelled
};

PathMonitor::PathMonitor(Handler handler) : state_(std::make_shared<State>()) {
  state_->handler = std::move(handler);
}

void PathMonitor::start(SerialQueue& queue) {
  queue.async([state = state_] {
    const std::vector<NetworkInterface> interfaces = availableInterfaces();
    const std::lock_guard guard(state->lock);
    if (state->handler) {
      state->handler(interfaces);
    }
  });
}

void PathMonitor::cancel() {
  const std::lock_guard guard(state_->lock);
  state_->handler = nullptr;
}

}  // namespace zk
