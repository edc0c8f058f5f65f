// The daemon on a machine whose default route a VPN has taken over, with a real proxy behind a real
// network: which way its packets go, seen from outside.

#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include "EndToEnd/Rig.h"
#include "NetworkLab/NetworkLab.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "ZelkorSOCKS5/InterfaceScope.h"

namespace zk::lab {
namespace {

using namespace test;
using Clock = std::chrono::steady_clock;
using Links = std::set<std::string>;
using Peer = TURNClient::Address;

constexpr const char* anyLog[] = {"/tmp/zkturnd.log", "/tmp/zkturnd-dp.log", "/tmp/zk-egress.log"};

std::string whyNoLab;  // empty when the lab can be built

constexpr const char* wireAndVPN = R"(
link home lan0 10.1.0.2 router wire 10.1.0.1
route default via 10.1.0.1 metric 100
route default dev vpn metric 50
trafficTakes vpn)";

void expectIn(const std::string& text, const std::string& part) {
  EXPECT_NE(text.find(part), std::string::npos) << part << "\n  is not in\n" << text;
}

// The daemon at home, run by nobody, and one client of it.
struct Call {
  using Environment = std::map<std::string, std::string>;

  explicit Call(Environment environment = {}) {
    environment["ZK_STUN_IPS"] = std::string(NetworkLab::internet) + ":3478";
    DaemonConfig config;
    config.proxyHost = NetworkLab::proxyInner;
    config.proxyPort = NetworkLab::proxyPort;
    for (const char* const log : anyLog) {
      unlink(log);
    }
    NetworkLab::in("home", [&] {
      daemon = std::make_unique<DaemonProcess>("/run/zkturnd-as-nobody", environment);
      daemon->write(config.line());
      client = std::make_unique<TURNClient>(daemon->waitReady(patience).value_or(0));
    });
    client->setTimeout(longPatience);
  }

  // Ends the daemon. Its log, which is complete then.
  std::string end() {
    daemon->terminate();
    EXPECT_EQ(daemon->waitExit(patience), 0);
    return contentOf(anyLog[0]);
  }

  std::unique_ptr<DaemonProcess> daemon;
  std::unique_ptr<TURNClient> client;
};

class NetworkLabTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!whyNoLab.empty()) {
      GTEST_SKIP() << "no network lab here: " << whyNoLab;
    }
  }

  void build(const std::string& homeScript) {
    lab = std::make_unique<NetworkLab>(homeScript);
    NetworkLab::in("internet", [this] {
      stun = std::make_unique<STUNResponder>(STUNScript{}, NetworkLab::internet, 3478);
      for (const char* const ip : NetworkLab::peers) {
        peers.push_back(std::make_unique<EchoPeer>(ip, 7000));
      }
    });
  }

  // Allocates and sends a datagram to a peer and back.
  void expectCallWorks(Call& call) {
    const TURNAnswer answer = call.client->allocate();
    ASSERT_TRUE(answer.success()) << answer.errorCode();
    // Not where the proxy is reached, but its other address, which is what the peer sees.
    EXPECT_EQ(answer.relayedAddress()->ip, NetworkLab::proxyPublic);
    ASSERT_TRUE(call.client->createPermission({peers[0]->ip(), peers[0]->port()}).success());
    EXPECT_TRUE(echoes(*call.client, *peers[0], bytesOf("hello")));
    EXPECT_EQ(addressText(*peers[0]->lastSource()), NetworkLab::proxyPublic);
  }

  // The links by which packets of this protocol have left home, but for the first `skipped` of all.
  Links linksOf(std::uint8_t protocol, std::size_t skipped = 0) {
    Links links;
    for (const Packet& packet : lab->packets()) {
      if (skipped > 0) {
        --skipped;
      } else if (packet.etherType == ETH_P_IP && packet.protocol == protocol) {
        links.insert(packet.link);
      }
    }
    return links;
  }

  // The packets for anybody but the proxy. ARP is between neighbours.
  std::multiset<std::string> strayPackets() {
    std::this_thread::sleep_for(aMoment);
    std::multiset<std::string> strays;
    for (const Packet& packet : lab->packets()) {
      if (packet.etherType != ETH_P_ARP && packet.destination != NetworkLab::proxyInner) {
        strays.insert(packet.link + " to " + packet.destination);
      }
    }
    return strays;
  }
  const std::multiset<std::string> none{};

  std::unique_ptr<NetworkLab> lab;
  std::unique_ptr<STUNResponder> stun;
  std::vector<std::unique_ptr<EchoPeer>> peers;
};

TEST_F(NetworkLabTest, RelayComesUpOnTheWireAlthoughTheVPNOwnsTheDefaultRoute) {
  build(wireAndVPN);
  lab->setForwarding(true);  // the VPN would do as well
  Call call;
  expectCallWorks(call);
  expectIn(call.end(), "relay OPEN ok (en0) ip=203.0.113.2 ");
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"wire"});
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{"wire"});
}

TEST_F(NetworkLabTest, PinningAndLoggingNeedNoPrivilege) {
  build(wireAndVPN);
  Call call;
  expectCallWorks(call);
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{"wire"});
  const std::string status = contentOf("/proc/" + std::to_string(call.daemon->pid()) + "/status");
  expectIn(status, "\nUid:\t65534\t65534\t65534\t65534\n");
  expectIn(status, "\nGroups:\t \n");
  for (const char* const set : {"CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
    expectIn(status, std::string(set) + ":\t0000000000000000\n");
  }
  call.end();
  for (const char* const log : anyLog) {
    struct stat about {};
    EXPECT_EQ(stat(log, &about), 0) << log;
    EXPECT_EQ(about.st_uid, 65534U) << log;
    EXPECT_GT(about.st_size, 0) << log;
  }
}

TEST_F(NetworkLabTest, DatagramsTakeTheVPNWhereTheWireCarriesOnlyTCP) {
  build(wireAndVPN);
  lab->setForwarding(true);
  lab->dropUDPOnWire();
  Call call;
  expectCallWorks(call);
  EXPECT_EQ(linksOf(IPPROTO_UDP), (Links{"wire", "vpn"})) << "one rung each";
  const std::size_t untilNow = lab->packets().size();
  EXPECT_TRUE(echoes(*call.client, *peers[0], bytesOf("hello again")));
  EXPECT_EQ(linksOf(IPPROTO_UDP, untilNow), Links{"vpn"});
  const std::string log = call.end();
  expectIn(log, "relay OPEN en0 failed (TCP connect to proxy failed: egress probe failed");
  expectIn(log, "relay OPEN ok (via-default) ip=203.0.113.2 ");
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"wire"}) << "the control connection stays pinned";
  EXPECT_EQ(strayPackets(), none);
}

TEST_F(NetworkLabTest, NoRelayWhenTheWireIsCutAndNothingSaysToLeaveIt) {
  build(wireAndVPN);
  lab->setForwarding(true);
  lab->cutWire();
  Call call;
  const auto begin = Clock::now();
  EXPECT_EQ(call.client->allocate().errorCode(), 500);
  EXPECT_GE(Clock::now() - begin, milliseconds(12'900));  // 3 and 10 seconds
  EXPECT_LT(Clock::now() - begin, milliseconds(17'000));
  const std::string log = call.end();
  const std::string reason = "TCP connect to proxy failed: connect: connect timeout";
  expectIn(log, "relay OPEN en0 failed (" + reason + ")");
  expectIn(log, "relay OPEN FAILED both rungs: " + reason);
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"wire"});
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{});
}

TEST_F(NetworkLabTest, RelayComesUpOnTheVPNWhenTheWireIsCutAndTheEnvironmentSaysSo) {
  build(wireAndVPN);
  lab->setForwarding(true);
  lab->cutWire();
  Call call(Call::Environment{{"ZK_EGRESS_VIA_DEFAULT", "1"}});
  expectCallWorks(call);
  const std::string log = call.end();
  expectIn(log, "relay OPEN en0 failed (TCP connect to proxy failed: egress probe failed");
  expectIn(log, "relay OPEN ok (via-default) ip=203.0.113.2 ");
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"vpn"});
  EXPECT_EQ(linksOf(IPPROTO_UDP), (Links{"wire", "vpn"}))
      << "the first rung is pinned all the same";
}

// To a peer on a channel, to one by indications, to one that never answers and to nobody.
TEST_F(NetworkLabTest, NotOnePacketOfACallLeavesHomeForAnybodyButTheProxy) {
  constexpr std::size_t rounds = 1000;
  build(wireAndVPN);
  Call call;
  expectCallWorks(call);
  TURNClient& client = *call.client;
  peers[2]->setEcho(false);
  ASSERT_TRUE(client.bindChannel(0x4000, {peers[0]->ip(), 7000}).success());
  const Peer others[] = {{peers[1]->ip(), 7000}, {peers[2]->ip(), 7000}, {NetworkLab::internet, 9}};
  for (const Peer& peer : others) {
    ASSERT_TRUE(client.createPermission(peer).success());
  }
  const Bytes payload(200, 0xA5);
  std::size_t onChannel = 0;
  for (std::size_t round = 0; round < rounds; ++round) {
    client.sendChannelData(0x4000, payload);
    for (const Peer& peer : others) {
      client.sendIndication(peer, payload);
    }
    for (int answers = 0; answers < 2; ++answers) {
      const auto data = client.receiveData(patience);
      ASSERT_TRUE(data) << "round " << round;
      onChannel += data->channel.has_value();
    }
  }
  EXPECT_EQ(onChannel, rounds);
  // Nothing comes back that would tell that the last one has arrived.
  EXPECT_TRUE(becomesTrue([&] { return peers[2]->received() == rounds; })) << peers[2]->received();
  EXPECT_TRUE(client.refresh(0).success());
  call.end();

  EXPECT_EQ(strayPackets(), none);
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{"wire"});
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"wire"});
  EXPECT_GE(lab->packets().size(), 4 * rounds) << "the recorder has missed the call";
}

// What the test above relies on.
TEST_F(NetworkLabTest, OneStrayPacketOnEitherLinkIsNoticed) {
  build(wireAndVPN);
  EXPECT_EQ(strayPackets(), none);
  NetworkLab::in("home", [] {
    for (const char* const interface : {"lan0", "no interface"}) {
      const int socket = openUDPSocket();
      pinToInterface(socket, interfaceIndex(interface));
      sendDatagram(socket, bytesOf("stray"), socketAddress(NetworkLab::peers[0], 7000));
      closeSocket(socket);
    }
  });
  EXPECT_EQ(strayPackets(),
            (std::multiset<std::string>{"vpn to 198.51.100.11", "wire to 198.51.100.11"}));
}

struct Machine {
  const char* name;
  const char* interface;  // that is to be chosen; empty for none
  const char* link;       // that the daemon's traffic is to take
  const char* script;
};

void PrintTo(const Machine& machine, std::ostream* out) {
  *out << machine.name;
}

class MachineTest : public NetworkLabTest, public testing::WithParamInterface<Machine> {};

TEST_P(MachineTest, TrafficTakesTheRightInterface) {
  build(GetParam().script);
  lab->setForwarding(true);
  NetworkLab::in("home", [] {
    InterfaceScope::invalidate();
    EXPECT_EQ(InterfaceScope::name().value_or(""), GetParam().interface);
  });
  Call call;
  expectCallWorks(call);
  expectIn(call.end(), "relay OPEN ok (en0)");  // the first rung, pinned or not
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{GetParam().link});
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{GetParam().link});
  EXPECT_EQ(strayPackets(), none);
}

const Machine machines[] = {
    {"WithAVPNThatSplitsTheDefaultRoute", "lan0", "wire", R"(
        link home lan0 10.1.0.2 router wire 10.1.0.1
        route default via 10.1.0.1
        route 0.0.0.0/1 dev vpn; route 128.0.0.0/1 dev vpn
        trafficTakes vpn)"},
    {"WithAVPNThatHasARoutingTable", "lan0", "wire", R"(
        link home lan0 10.1.0.2 router wire 10.1.0.1
        route default via 10.1.0.1
        route default dev vpn table 100
        ip -n home rule add pref 100 table main suppress_prefixlength 0
        ip -n home rule add pref 101 not fwmark 100 table 100
        trafficTakes vpn)"},
    {"WithoutWireOrWiFi", "", "vpn", R"(
        route default dev vpn)"},
    {"WithTwoWiresTheLowerMetricWins", "lan1", "wire2", R"(
        link home lan0 10.1.0.2 router wire 10.1.0.1
        link home lan1 10.1.1.2 router wire2 10.1.1.1
        route default via 10.1.0.1 metric 300
        route default via 10.1.1.1 metric 200
        route default dev vpn metric 50)"},
    {"WhoseFirstWireHasNoRoute", "lan1", "wire2", R"(
        link home lan0 10.1.0.2 router wire 10.1.0.1
        link home lan1 10.1.1.2 router wire2 10.1.1.1
        route default via 10.1.1.1 metric 200
        route default dev vpn metric 50)"},
    {"WhoseBestWireIsUnplugged", "lan1", "wire2", R"(
        link home lan0 10.1.0.2 router wire 10.1.0.1
        link home lan1 10.1.1.2 router wire2 10.1.1.1
        route default via 10.1.0.1 metric 100
        route default via 10.1.1.1 metric 200
        route default dev vpn metric 50
        ip -n router link set wire down)"},
    // The cable is in a bridge, which has the address, and the containers are in another: there is
    // nothing to pin to.
    {"WithBridgesAndContainersOnly", "", "wire", R"(
        host container
        link home lan0 none router wire 10.1.0.1
        link home veth1 none container eth0 10.3.0.2
        bridge br0 10.1.0.2 lan0
        bridge br1 10.3.0.1 veth1
        route default via 10.1.0.1)"},
};

INSTANTIATE_TEST_SUITE_P(Machines, MachineTest, testing::ValuesIn(machines),
                         [](const auto& machine) { return std::string(machine.param.name); });

}  // namespace
}  // namespace zk::lab

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    zk::lab::whyNoLab = zk::lab::enterPrivateMachine(ZK_DAEMON);
  }
  return RUN_ALL_TESTS();
}
