#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "Base/Bytes.h"
#include "Platform/Descriptor.h"

// rtnetlink(7): how the kernel is asked about interfaces, addresses and routes.

namespace zk {

/// Calls `visit` with the type and the attribute for every attribute of a message.
template <typename Visit>
void forEachAttribute(const rtattr* attribute, std::size_t length, Visit visit) {
  int left = static_cast<int>(length);
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    visit(attribute->rta_type & NLA_TYPE_MASK, attribute);
  }
}

inline std::string textOf(const rtattr* attribute) {
  const auto* text = static_cast<const char*>(RTA_DATA(attribute));
  return {text, strnlen(text, RTA_PAYLOAD(attribute))};
}

inline std::uint32_t numberOf(const rtattr* attribute) {
  std::uint32_t number = 0;
  std::memcpy(&number, RTA_DATA(attribute), std::min(sizeof number, RTA_PAYLOAD(attribute)));
  return number;
}

/// One entry of the routing tables.
struct Route {
  bool isUnicast = false;
  bool isLocal = false;  // an address of this machine
  unsigned table = RT_TABLE_UNSPEC;
  unsigned prefixLength = 0;
  Bytes destination{};  // empty for a default route
  std::uint32_t metric = 0;
  bool hasGateway = false;
  std::vector<unsigned> interfaces{};  // more than one when the traffic is spread

  bool covers(ByteView address) const;
};

Route readRoute(const nlmsghdr* message);

/// A conversation with the kernel over one socket. It never waits: the kernel has answered by the
/// time a question is sent. A failure throws LookFailed and does not affect the next question.
class Netlink {
 public:
  using Visit = std::function<void(const nlmsghdr* message)>;

  Netlink();

  /// Calls `visit` for everything of one kind (RTM_GETLINK, ...).
  void dump(std::uint16_t type, int family, const Visit& visit);

  /// The route that the kernel would take to `destination`, by that interface when it is not 0.
  /// Absent when there is none.
  std::optional<Route> routeTo(const sockaddr& destination, unsigned interface);

 private:
  struct Request;

  int ask(Request& request, const Visit& visit);
  std::size_t receive();

  const Descriptor socket_;
  std::uint32_t asked_ = 0;
  bool isAnswered_ = true;                                                 // to the end
  std::vector<std::uint32_t> buffer_ = std::vector<std::uint32_t>(16384);  // 64 KiB, aligned
};

}  // namespace zk
