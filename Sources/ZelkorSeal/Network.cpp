#include "ZelkorSeal/Network.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

#include <fcntl.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Base/Endpoint.h"
#include "ZelkorSeal/Steps.h"

namespace zk {
namespace {

constexpr const char* loopback = "lo";
constexpr const char* tunName = "eth0";
constexpr std::uint32_t netmask = 0xFFFFFF00;
constexpr std::uint32_t queueLength =
    4096;  // packets; the default of 500 is less than one full window
constexpr int backlog = 4096;

ifreq requestFor(const char* interface) {
  ifreq request{};
  std::strncpy(request.ifr_name, interface, sizeof request.ifr_name - 1);
  return request;
}

sockaddr genericAddress(const Endpoint& endpoint) {
  const sockaddr_in address = endpoint.socketAddress();
  return reinterpret_cast<const sockaddr&>(address);
}

void ask(int socket, unsigned long what, ifreq& request, const char* words) {
  requireStep(ioctl(socket, what, &request) == 0, SealStep::network, words);
}

void bringUp(int socket, const char* interface) {
  ifreq request = requestFor(interface);
  ask(socket, SIOCGIFFLAGS, request, "look at an interface");
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  ask(socket, SIOCSIFFLAGS, request, "bring an interface up");
}

Descriptor openTun() {
  Descriptor tun(open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC));
  requireStep(bool(tun), SealStep::tun, "open /dev/net/tun");
  ifreq request = requestFor(tunName);
  request.ifr_flags = IFF_TUN | IFF_NO_PI | IFF_VNET_HDR;
  requireStep(ioctl(tun.get(), TUNSETIFF, &request) == 0, SealStep::tun, "make a tun device");
  requireStep(ioctl(tun.get(), TUNSETOFFLOAD, TUN_F_CSUM) == 0, SealStep::tun,
              "leave sums to the tun");
  return tun;
}

// Where the system has IPv6 at all.
void disableIPv6() {
  const Descriptor file(open("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", O_WRONLY | O_CLOEXEC));
  requireStep(file ? write(file.get(), "1", 1) == 1 : errno == ENOENT, SealStep::network,
              "switch IPv6 off");
}

// By netlink: the older way needs a privilege outside of the namespace.
void lengthenQueue() {
  struct {
    nlmsghdr header;
    ifinfomsg link;
    rtattr attribute;
    std::uint32_t length;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_NEWLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  request.link.ifi_index = static_cast<int>(if_nametoindex(tunName));
  request.attribute = {RTA_LENGTH(sizeof request.length), IFLA_TXQLEN};
  request.length = queueLength;
  struct {
    nlmsghdr header;
    nlmsgerr result;
  } answer{};
  const Descriptor kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  const bool isAnswered = kernel && send(kernel.get(), &request, sizeof request, 0) > 0 &&
                          recv(kernel.get(), &answer, sizeof answer, MSG_TRUNC) > 0;
  errno = isAnswered ? -answer.result.error : errno;
  requireStep(isAnswered && answer.result.error == 0, SealStep::network, "give the tun its queue");
}

void equipTun(int socket) {
  ifreq request = requestFor(tunName);
  request.ifr_addr = genericAddress({SealNetwork::address, 0});
  ask(socket, SIOCSIFADDR, request, "give the tun its address");
  request.ifr_netmask = genericAddress({netmask, 0});
  ask(socket, SIOCSIFNETMASK, request, "give the tun its netmask");
  request.ifr_mtu = SealNetwork::mtu;
  ask(socket, SIOCSIFMTU, request, "give the tun its MTU");
  lengthenQueue();
  disableIPv6();
  bringUp(socket, tunName);
  rtentry route{};
  route.rt_dst = genericAddress({});
  route.rt_genmask = genericAddress({});
  route.rt_gateway = genericAddress({SealNetwork::gateway, 0});
  route.rt_flags = RTF_UP | RTF_GATEWAY;
  requireStep(ioctl(socket, SIOCADDRT, &route) == 0, SealStep::network, "set the default route");
}

Descriptor boundSocket(int type, const Endpoint& to, const char* interface) {
  Descriptor bound(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr address = genericAddress(to);
  const bool isThere = bound &&
                       setsockopt(bound.get(), SOL_SOCKET, SO_BINDTODEVICE, interface,
                                  static_cast<socklen_t>(std::strlen(interface))) == 0 &&
                       bind(bound.get(), &address, sizeof address) == 0 &&
                       (type == SOCK_DGRAM || listen(bound.get(), backlog) == 0);
  requireStep(isThere, SealStep::network, "bind a socket in the seal");
  return bound;
}

// What a kernel puts into every new network, if anything, is down: nobody brings it up.
void requireNothingElse(int socket) {
  const std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> all(if_nameindex(),
                                                                              &if_freenameindex);
  requireStep(all != nullptr, SealStep::network, "list the interfaces");
  for (const auto* interface = all.get(); interface->if_index != 0; ++interface) {
    if (std::strcmp(interface->if_name, loopback) == 0 ||
        std::strcmp(interface->if_name, tunName) == 0) {
      continue;
    }
    ifreq request = requestFor(interface->if_name);
    ask(socket, SIOCGIFFLAGS, request, "look at an interface");
    if ((request.ifr_flags & IFF_UP) != 0) {
      throw SealStepFailure{SealStep::network,
                            std::string("one more interface is up: ") + interface->if_name, 0};
    }
  }
}

}  // namespace

SealDescriptors makeSealNetwork() {
  const Descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  requireStep(bool(any), SealStep::network, "open a socket");
  SealDescriptors made;
  bringUp(any.get(), loopback);
  made.tun = openTun();
  equipTun(any.get());
  made.listener =
      boundSocket(SOCK_STREAM, {SealNetwork::address, SealNetwork::listenerPort}, tunName);
  for (std::size_t i = 0; i < std::size(SealNetwork::nameServers); ++i) {
    const Endpoint server{SealNetwork::nameServers[i], SealNetwork::namePort};
    made.namesUDP[i] = boundSocket(SOCK_DGRAM, server, loopback);
    made.namesTCP[i] = boundSocket(SOCK_STREAM, server, loopback);
  }
  requireNothingElse(any.get());
  return made;
}

}  // namespace zk
