#include <cstdlib>
#include <thread>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include "Support.h"
#include "System.h"
#include "ZelkorSOCKS5/InterfaceScope.h"

namespace zk {
namespace {

TEST(InterfaceScope, DecidesByTextThenOverrideThenEnvironment) {
  unsetenv("ZK_EGRESS_VIA_DEFAULT");
  using Override = std::optional<bool>;
  for (const char* const host : {"localhost", "LocalHost", "::1", "0.0.0.0", "127.0.0.1",
                                 "127.1.2.3", "127.", "127.example.org"}) {
    for (const Override override : {Override(), {false}, {true}}) {
      EXPECT_FALSE(InterfaceScope::shouldScope(host, override)) << host;
    }
  }
  for (const char* const host :
       {"[::1]", "0:0:0:0:0:0:0:1", "localhost.", "1127.0.0.1", "", "::", "203.0.113.9"}) {
    EXPECT_TRUE(InterfaceScope::shouldScope(host, std::nullopt)) << host;
    EXPECT_FALSE(InterfaceScope::shouldScope(host, true)) << host;
    for (const char* const value : {"1", "", "0", "true", "1 ", "11"}) {
      const test::Environment set("ZK_EGRESS_VIA_DEFAULT", value);
      EXPECT_EQ(InterfaceScope::shouldScope(host, std::nullopt), value != std::string_view("1"));
      EXPECT_TRUE(InterfaceScope::shouldScope(host, false));
    }
  }
}

// A machine of the case's own, and the interface by which it is to reach a destination.
struct Case {
  const char* machine;  // in shell
  const char* destination;
  const char* interface;  // empty for none
};

constexpr const char* vocabulary = R"(set -e
exec 2>/dev/null
ip link set lo up
wire() {  # NAME [ADDRESS]: a cable, with somebody at its other end
  ip link add $1 type veth peer name $1-end
  ip link set $1-end up; ip link set $1 up; [ -z "$2" ] || ip addr add $2/24 dev $1
}
on() {  # NAME ADDRESS: what is stacked on a cable
  ip link set $1 up; ip addr add $2/24 dev $1
}
route() { ip route add "$@"; }
links() {  # KIND: some kernels have none of it; other kinds want more than a name
  ! LC_ALL=C ip link add try type $1 2>&1 | grep -q "Unknown device type" || exit 77
  ip link del try || :
}
usual() { wire lan0 10.1.0.2; route default via 10.1.0.1; }
vpn() { ip tuntap add vpn mode tun; ip link set vpn up; ip addr add 10.8.0.2/24 dev vpn; }
)";

constexpr const char* anywhere = "203.0.113.9";

const Case cases[] = {
    {"usual", anywhere, "lan0"},
    {"usual", "::ffff:203.0.113.9", "lan0"},
    {"usual", "10.5.0.1", "lan0"},
    // Nothing that stays here, whatever it is called.
    {"usual", "127.0.1.1", ""},
    {"usual", "::ffff:127.0.0.1", ""},
    {"usual", "::1", ""},
    {"usual", "10.1.0.2", ""},
    // Three ways in which a VPN takes over the routes, and one in which it takes them away: then
    // the wire is for its own neighbours only.
    {"usual; vpn; route 0.0.0.0/1 dev vpn; route 128.0.0.0/1 dev vpn", anywhere, "lan0"},
    {"usual; vpn; route 0.0.0.0/1 dev vpn; route 128.0.0.0/1 dev vpn", "10.5.0.1", "lan0"},
    {"usual; vpn; route default dev vpn table 100; ip rule add pref 100 table 100", anywhere,
     "lan0"},
    {"usual; vpn; route default dev vpn table 100; ip rule add pref 100 table 100", "10.1.0.9",
     "lan0"},
    {"usual; vpn; route default dev vpn metric 5", "192.168.7.7", "lan0"},
    {"wire lan0 10.1.0.2; vpn; route default dev vpn", anywhere, ""},
    {"wire lan0 10.1.0.2; vpn; route default dev vpn", "10.5.0.1", ""},
    {"wire lan0 10.1.0.2; vpn; route default dev vpn", "10.1.0.9", "lan0"},
    // Private addresses behind a link route belong to its interface; behind a gateway, or by a
    // route for everybody, they do not.
    {"usual; vpn", "10.8.0.1", "vpn"},
    {"usual; vpn; route 10.9.0.0/16 dev vpn", "10.9.1.1", "vpn"},
    {"usual; vpn; route 10.9.0.0/16 dev vpn; route 10.9.1.0/24 via 10.1.0.7", "10.9.1.1", "lan0"},
    {"usual; vpn; route 10.9.0.0/16 via 10.8.0.1", "10.9.1.1", "lan0"},
    {"usual; vpn; route 100.64.0.7 dev vpn table 52", "100.64.0.7", "vpn"},
    {"usual; vpn; route 203.0.113.0/24 dev vpn", anywhere, "lan0"},
    {"usual; ip link add br0 type bridge; on br0 172.17.0.1", "172.17.0.2", "br0"},
    // Which cable.
    {"usual; wire lan1 10.2.0.2; route default via 10.2.0.1 metric 9", anywhere, "lan0"},
    {"wire lan0 10.1.0.2; wire lan1 10.2.0.2; route default via 10.2.0.1", anywhere, "lan1"},
    {"usual; wire lan1 10.2.0.2; route default via 10.2.0.1 metric 9; ip link set lan0-end down",
     anywhere, "lan1"},
    {"vpn; route default dev vpn", anywhere, ""},
    // What is stacked on a cable counts like it; a bridge of containers is no cable.
    {"wire lan0; ip link add link lan0 name up0 type macvlan; on up0 10.1.0.2; "
     "route default via 10.1.0.1",
     anywhere, "up0"},
    {"links vlan; wire lan0; ip link add link lan0 name up0 type vlan id 5; on up0 10.1.0.2; "
     "route default via 10.1.0.1",
     anywhere, "up0"},
    {"links bond; wire lan0; ip link add up0 type bond mode active-backup; ip link set lan0 down; "
     "ip link set lan0 master up0; on up0 10.1.0.2; route default via 10.1.0.1",
     anywhere, "up0"},
    {"wire lan0; ip link add link lan0 name port type macvlan mode passthru; "
     "ip link add br0 type bridge; ip link set port master br0 up; on br0 10.1.0.2; "
     "route default via 10.1.0.1",
     anywhere, "br0"},
    {"wire lan0; ip link add br0 type bridge; ip link set lan0 master br0; on br0 10.1.0.2; "
     "route default via 10.1.0.1",
     anywhere, ""},
    // IPv6 by its own routes.
    {"usual; vpn; ip addr add 2001:db8::2/64 dev lan0 nodad; "
     "route default via 2001:db8::1; ip -6 route add ::/1 dev vpn",
     "2001:db8:9::9", "lan0"},
    {"usual", "2001:db8:9::9", ""},
};

TEST(InterfaceScope, ChoosesTheInterfaceThatTheDestinationCallsFor) {
  unsetenv("ZK_EGRESS_VIA_DEFAULT");
  if (std::system("command -v ip >/dev/null && unshare -n true 2>/dev/null") != 0) {
    GTEST_SKIP() << "needs root and ip: apt-get install iproute2; sudo scripts/test";
  }
  for (const Case& c : cases) {
    std::thread([&c] {
      SCOPED_TRACE(std::string(c.machine) + " to " + c.destination);
      ASSERT_TRUE(test::enterNewNetwork());
      const int status = std::system((std::string(vocabulary) + c.machine).c_str());
      if (WEXITSTATUS(status) == 77) {
        return;
      }
      ASSERT_EQ(status, 0);
      sockaddr_storage destination{};
      auto& ipv4 = reinterpret_cast<sockaddr_in&>(destination);
      auto& ipv6 = reinterpret_cast<sockaddr_in6&>(destination);
      if (inet_pton(AF_INET, c.destination, &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
      } else {
        ASSERT_EQ(inet_pton(AF_INET6, c.destination, &ipv6.sin6_addr), 1);
        ipv6.sin6_family = AF_INET6;
      }
      const auto choose = [&](std::optional<bool> override) {
        const auto index = InterfaceScope::interfaceFor(
            "proxy.test", reinterpret_cast<const sockaddr&>(destination), override);
        char name[IF_NAMESIZE] = "";
        return index ? std::string(if_indextoname(*index, name)) : "";
      };
      EXPECT_EQ(choose({}), c.interface);
      EXPECT_EQ(choose(true), "");
    }).join();
  }
}

}  // namespace
}  // namespace zk
