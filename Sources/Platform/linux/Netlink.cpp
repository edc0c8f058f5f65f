#include "Platform/linux/Netlink.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#include "Platform/Interfaces.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

[[noreturn]] void fail(int error) {
  throw LookFailed(error, std::generic_category(), "netlink");
}

// Which errors mean that there is no such route. All others mean that the kernel could not tell.
bool meansNoRoute(int error) {
  return error == EHOSTUNREACH || error == ENETUNREACH || error == ENODEV || error == EINVAL ||
         error == EACCES;
}

// The error that such a message carries, 0 for none.
int errorIn(const nlmsghdr* message) {
  int error = 0;  // negative, right behind the header
  if (message->nlmsg_len >= NLMSG_LENGTH(sizeof error)) {
    std::memcpy(&error, NLMSG_DATA(message), sizeof error);
  }
  return -error;
}

}  // namespace

bool Route::covers(ByteView address) const {
  return destination.empty() ? prefixLength == 0
                             : destination.size() == address.size() &&
                                   sharePrefix(destination.data(), address.data(), prefixLength);
}

Route readRoute(const nlmsghdr* message) {
  const auto* info = static_cast<const rtmsg*>(NLMSG_DATA(message));
  Route route;
  route.isUnicast = info->rtm_type == RTN_UNICAST;
  route.isLocal = info->rtm_type == RTN_LOCAL;
  route.table = info->rtm_table;
  route.prefixLength = info->rtm_dst_len;
  forEachAttribute(RTM_RTA(info), RTM_PAYLOAD(message), [&](int type, const rtattr* attribute) {
    if (type == RTA_DST) {
      const auto* const octets = static_cast<const std::uint8_t*>(RTA_DATA(attribute));
      route.destination.assign(octets, octets + RTA_PAYLOAD(attribute));
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

struct Netlink::Request {
  nlmsghdr header{};
  rtmsg route{};  // of which a dump has the family only
  std::uint8_t attributes[64]{};

  Request(std::uint16_t type, int family) {
    header.nlmsg_type = type;
    header.nlmsg_len = NLMSG_LENGTH(sizeof route);
    route.rtm_family = static_cast<unsigned char>(family);
  }
  void add(unsigned short type, const void* value, std::size_t length) {
    auto* attribute = reinterpret_cast<rtattr*>(reinterpret_cast<std::uint8_t*>(this) +
                                                NLMSG_ALIGN(header.nlmsg_len));
    attribute->rta_type = type;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
    std::memcpy(RTA_DATA(attribute), value, length);
    header.nlmsg_len = NLMSG_ALIGN(header.nlmsg_len) + RTA_ALIGN(attribute->rta_len);
  }
};

Netlink::Netlink() : socket_(openForLooks(AF_NETLINK, SOCK_RAW)) {}

void Netlink::dump(std::uint16_t type, int family, const Visit& visit) {
  Request request(type, family);
  request.header.nlmsg_flags = NLM_F_DUMP;
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
  if (const int error = ask(request, visit)) {
    fail(error);
  }
}

std::optional<Route> Netlink::routeTo(const sockaddr& destination, unsigned interface) {
  const ByteView address = octetsOf(destination);
  Request request(RTM_GETROUTE, destination.sa_family);
  request.route.rtm_dst_len = static_cast<unsigned char>(address.size() * 8);
  // Asks for the entry of the table, and for an error when there is none. Without this the kernel
  // answers that a destination without a route is a neighbour on `interface`.
  request.route.rtm_flags = RTM_F_FIB_MATCH;
  request.add(RTA_DST, address.data(), address.size());
  if (interface != 0) {
    request.add(RTA_OIF, &interface, sizeof interface);
  }
  std::optional<Route> found;
  const int error = ask(request, [&](const nlmsghdr* message) { found = readRoute(message); });
  if (error != 0 && !meansNoRoute(error)) {
    fail(error);
  }
  return error == 0 ? found : std::nullopt;
}

// The error that the kernel answers with, 0 for none.
int Netlink::ask(Request& request, const Visit& visit) {
  if (!isAnswered_) {  // the kernel refuses a new dump before the old one is read
    while (recv(socket_.get(), buffer_.data(), buffer_.size() * sizeof buffer_[0], 0) > 0) {
    }
  }
  isAnswered_ = false;
  request.header.nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
  request.header.nlmsg_seq = ++asked_;
  if (send(socket_.get(), &request, request.header.nlmsg_len, 0) < 0) {
    fail(errno);
  }
  while (true) {
    auto left = static_cast<unsigned>(receive());
    for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer_.data()); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
      if (message->nlmsg_seq != asked_) {
        continue;
      }
      if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
        isAnswered_ = true;
        return errorIn(message);
      }
      visit(message);
    }
  }
}

std::size_t Netlink::receive() {
  while (true) {
    const ssize_t received =
        recv(socket_.get(), buffer_.data(), buffer_.size() * sizeof buffer_[0], 0);
    if (received > 0) {
      return static_cast<std::size_t>(received);
    }
    if (received == 0 || errno != EINTR) {
      fail(received == 0 ? ENODATA : errno);
    }
  }
}

}  // namespace zk
