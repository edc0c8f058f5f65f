// The daemon on a machine whose default route a VPN has taken over, with a real proxy behind a real
// network: which way its packets go, seen from outside.

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
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

#include "EndToEnd/NetworkLab/NetworkLab.h"
#include "Loopback/DaemonConfig.h"
#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/TURNClient.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "ZelkorSOCKS5/InterfaceScope.h"

namespace zk::lab {
namespace {

using loopback::DaemonConfig;
using loopback::DaemonProcess;
using loopback::EchoPeer;
using loopback::STUNResponder;
using loopback::TURNAnswer;
using loopback::TURNClient;
using std::chrono::milliseconds;
using std::chrono::seconds;

std::string whyNoLab;  // empty when the lab can be built

// A wire, whose default route the VPN's goes before.
constexpr const char* wireAndVPN = R"(
link home lan0 10.1.0.2 router wire 10.1.0.1
ip -n home route add default via 10.1.0.1 metric 100
ip -n home route add default dev vpn metric 50
)";

std::string textOfFile(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The daemon at home, run by nobody, and one client of it.
class Call {
 public:
  using Environment = std::map<std::string, std::string>;

  explicit Call(Environment variables = {}) {
    variables["ZK_STUN_IPS"] = std::string(NetworkLab::farSide) + ":3478";
    DaemonConfig config;
    config.proxyHost = NetworkLab::proxyInner;
    config.proxyPort = NetworkLab::proxyPort;
    unlink("/tmp/zkturnd.log");
    NetworkLab::in("home", [&] {
      daemon = std::make_unique<DaemonProcess>("/run/zkturnd-as-nobody", variables);
      daemon->write(config.line());
      client = std::make_unique<TURNClient>(daemon->waitReady(seconds(5)).value_or(0));
    });
    client->setTimeout(seconds(25));  // two rungs, three and ten seconds for connecting
  }

  // Ends the daemon. Its log, which is complete then.
  std::string end() {
    daemon->terminate();
    EXPECT_EQ(daemon->waitExit(seconds(5)), 0);
    return textOfFile("/tmp/zkturnd.log");
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
      stun = std::make_unique<STUNResponder>(loopback::STUNScript{}, "0.0.0.0", 3478);
      answering = std::make_unique<EchoPeer>("198.51.100.11", 7000);
      answeringToo = std::make_unique<EchoPeer>("198.51.100.12", 7000);
      silent = std::make_unique<EchoPeer>("198.51.100.13", 7000);
    });
    silent->setEcho(false);
  }

  // Allocates and sends a datagram to a peer and back.
  void expectCallWorks(Call& call) {
    const TURNAnswer answer = call.client->allocate();
    ASSERT_TRUE(answer.success()) << answer.errorCode();
    // Not the address where the proxy is reached: its other one, which peers see.
    EXPECT_EQ(answer.relayedAddress()->ip, NetworkLab::proxyPublic);
    const TURNClient::Address peer{answering->ip(), answering->port()};
    ASSERT_TRUE(call.client->createPermission(peer).success());
    call.client->sendIndication(peer, bytesOf("hello"));
    const auto data = call.client->receiveData(seconds(2));
    ASSERT_TRUE(data);
    EXPECT_EQ(data->payload, Bytes({'h', 'e', 'l', 'l', 'o'}));
    EXPECT_EQ(addressText(*answering->lastSource()), NetworkLab::proxyPublic);
  }

  // The links that packets of this protocol have left home by.
  std::set<std::string> linksOf(std::uint8_t protocol) {
    std::set<std::string> links;
    for (const Packet& packet : lab->packets()) {
      if (packet.etherType == ETH_P_IP && packet.protocol == protocol) {
        links.insert(packet.link);
      }
    }
    return links;
  }

  // The packets for anybody but the proxy. ARP never gets further than the next host.
  std::vector<std::string> strayPackets() {
    std::vector<std::string> strays;
    for (const Packet& packet : lab->packets()) {
      if (packet.etherType != ETH_P_ARP && packet.destination != NetworkLab::proxyInner) {
        strays.push_back(packet.link + " to " + packet.destination);
      }
    }
    return strays;
  }

  using Links = std::set<std::string>;
  std::unique_ptr<NetworkLab> lab;
  std::unique_ptr<STUNResponder> stun;
  std::unique_ptr<EchoPeer> answering;
  std::unique_ptr<EchoPeer> answeringToo;
  std::unique_ptr<EchoPeer> silent;
};

TEST_F(NetworkLabTest, RelayComesUpOnTheWireAlthoughTheVPNOwnsTheDefaultRoute) {
  build(wireAndVPN);
  lab->setForwarding(true);  // the VPN would do as well
  Call call;
  expectCallWorks(call);
  EXPECT_NE(call.end().find("relay OPEN ok (en0) ip=203.0.113.2 "), std::string::npos);
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"wire"});
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{"wire"});
}

TEST_F(NetworkLabTest, PinningNeedsNoPrivilege) {
  build(wireAndVPN);
  Call call;
  expectCallWorks(call);
  const std::string status = textOfFile("/proc/" + std::to_string(call.daemon->pid()) + "/status");
  EXPECT_NE(status.find("\nUid:\t65534\t65534\t65534\t65534\n"), std::string::npos) << status;
  EXPECT_NE(status.find("\nGroups:\t \n"), std::string::npos) << status;
  for (const char* const set : {"CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
    EXPECT_NE(status.find(std::string(set) + ":\t0000000000000000\n"), std::string::npos) << status;
  }
  for (const char* const log : {"/tmp/zkturnd.log", "/tmp/zkturnd-dp.log", "/tmp/zk-egress.log"}) {
    struct stat about {};
    EXPECT_EQ(stat(log, &about), 0) << log;
    EXPECT_EQ(about.st_uid, 65534U) << log;
  }
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{"wire"});
}

TEST_F(NetworkLabTest, DatagramsTakeTheVPNWhereTheWireCarriesOnlyTCP) {
  build(wireAndVPN);
  lab->setForwarding(true);
  lab->dropUDPOnWire();
  Call call;
  expectCallWorks(call);
  const std::string log = call.end();
  EXPECT_NE(log.find("relay OPEN en0 failed (TCP connect to proxy failed: egress probe failed"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("relay OPEN ok (via-default) ip=203.0.113.2 "), std::string::npos) << log;
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"wire"}) << "the control connection stays pinned";
  EXPECT_EQ(linksOf(IPPROTO_UDP), (Links{"wire", "vpn"})) << "one rung each";
  EXPECT_EQ(strayPackets(), std::vector<std::string>{});
}

TEST_F(NetworkLabTest, NoRelayWhenTheWireIsCutAndNothingSaysToLeaveIt) {
  build(wireAndVPN);
  lab->setForwarding(true);
  lab->cutWire();
  Call call;
  const TURNAnswer answer = call.client->allocate();
  EXPECT_EQ(answer.errorCode(), 500);
  const std::string log = call.end();
  const std::string reason = "TCP connect to proxy failed: connect: connect timeout";
  EXPECT_NE(log.find("relay OPEN en0 failed (" + reason + ")"), std::string::npos) << log;
  EXPECT_NE(log.find("relay OPEN FAILED both rungs: " + reason), std::string::npos) << log;
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
  EXPECT_NE(log.find("relay OPEN en0 failed (TCP connect to proxy failed: egress probe failed"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("relay OPEN ok (via-default) ip=203.0.113.2 "), std::string::npos) << log;
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"vpn"});
  EXPECT_EQ(linksOf(IPPROTO_UDP), (Links{"wire", "vpn"}))
      << "the first rung is pinned all the same";
}

// Thousands of datagrams: to a peer on a channel, to one by indications, to one that never answers
// and to an address where nobody is.
TEST_F(NetworkLabTest, NotOnePacketOfACallLeavesHomeForAnybodyButTheProxy) {
  constexpr std::size_t rounds = 1000;
  build(wireAndVPN);
  Call call;
  expectCallWorks(call);
  TURNClient& client = *call.client;
  const TURNClient::Address onChannel{answering->ip(), answering->port()};
  const TURNClient::Address byIndication{answeringToo->ip(), answeringToo->port()};
  const TURNClient::Address toSilent{silent->ip(), silent->port()};
  const TURNClient::Address nobody{NetworkLab::farSide, 9};
  ASSERT_TRUE(client.bindChannel(0x4000, onChannel).success());
  for (const auto& peer : {byIndication, toSilent, nobody}) {
    ASSERT_TRUE(client.createPermission(peer).success());
  }
  const Bytes payload(200, 0xA5);
  std::size_t onChannelBack = 0;
  std::size_t byIndicationBack = 0;
  for (std::size_t round = 0; round < rounds; ++round) {
    client.sendIndication(toSilent, payload);
    client.sendIndication(nobody, payload);
    client.sendChannelData(0x4000, payload);
    client.sendIndication(byIndication, payload);
    for (int answers = 0; answers < 2; ++answers) {
      const auto data = client.receiveData(seconds(1));
      ASSERT_TRUE(data) << "round " << round;
      ++(data->channel ? onChannelBack : byIndicationBack);
    }
  }
  EXPECT_EQ(onChannelBack, rounds);
  EXPECT_EQ(byIndicationBack, rounds);
  EXPECT_EQ(silent->received(), rounds);
  EXPECT_TRUE(client.refresh(0).success());
  call.end();
  std::this_thread::sleep_for(milliseconds(200));

  std::size_t datagrams = 0;
  for (const Packet& packet : lab->packets()) {
    datagrams += packet.protocol == IPPROTO_UDP;
  }
  EXPECT_GE(datagrams, 4 * rounds) << "the recorder has missed the call";
  EXPECT_EQ(strayPackets(), std::vector<std::string>{});
  EXPECT_EQ(linksOf(IPPROTO_UDP), Links{"wire"});
  EXPECT_EQ(linksOf(IPPROTO_TCP), Links{"wire"});
}

// What the test above relies on.
TEST_F(NetworkLabTest, OneStrayPacketOnEitherLinkIsNoticed) {
  build(wireAndVPN);
  EXPECT_EQ(strayPackets(), std::vector<std::string>{});
  NetworkLab::in("home", [] {
    const sockaddr_in peer = socketAddress("198.51.100.11", 7000);
    const int unpinned = openUDPSocket();
    sendDatagram(unpinned, bytesOf("stray"), peer);
    closeSocket(unpinned);
    const int pinned = openUDPSocket();
    pinToInterface(pinned, interfaceIndex("lan0"));
    sendDatagram(pinned, bytesOf("stray"), peer);
    closeSocket(pinned);
  });
  std::this_thread::sleep_for(milliseconds(200));
  std::vector<std::string> strays = strayPackets();
  std::sort(strays.begin(), strays.end());
  EXPECT_EQ(strays, (std::vector<std::string>{"vpn to 198.51.100.11", "wire to 198.51.100.11"}));
}

struct Machine {
  const char* name;
  const char* script;
  const char* interface;     // that is to be chosen; empty for none
  std::set<std::string> by;  // the links that the daemon's traffic is to take
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
  EXPECT_NE(call.end().find("relay OPEN ok (en0)"), std::string::npos) << "the first rung will do";
  EXPECT_EQ(linksOf(IPPROTO_TCP), GetParam().by);
  EXPECT_EQ(linksOf(IPPROTO_UDP), GetParam().by);
  EXPECT_EQ(strayPackets(), std::vector<std::string>{});
}

const Machine machines[] = {
    {"WithoutWireOrWiFi", "ip -n home route add default dev vpn", "", {"vpn"}},
    {"WithTwoWiresTheLowerMetricWins",
     R"(link home lan0 10.1.0.2 router wire 10.1.0.1
        link home lan1 10.1.1.2 router wire2 10.1.1.1
        ip -n home route add default via 10.1.0.1 metric 300
        ip -n home route add default via 10.1.1.1 metric 200
        ip -n home route add default dev vpn metric 50)",
     "lan1",
     {"wire2"}},
    {"WhoseFirstWireHasNoRoute",
     R"(link home lan0 10.1.0.2 router wire 10.1.0.1
        link home lan1 10.1.1.2 router wire2 10.1.1.1
        ip -n home route add default via 10.1.1.1 metric 200
        ip -n home route add default dev vpn metric 50)",
     "lan1",
     {"wire2"}},
    {"WhoseBestWireIsUnplugged",
     R"(link home lan0 10.1.0.2 router wire 10.1.0.1
        link home lan1 10.1.1.2 router wire2 10.1.1.1
        ip -n home route add default via 10.1.0.1 metric 100
        ip -n home route add default via 10.1.1.1 metric 200
        ip -n home route add default dev vpn metric 50
        ip -n router link set wire down)",
     "lan1",
     {"wire2"}},
    // The cable is a port of the bridge that has the address, and so is a virtual machine. The
    // containers have a bridge of their own. There is no interface to pin to.
    {"WithBridgesAndContainersOnly",
     R"(link home lan0 none router wire 10.1.0.1
        host container
        ip -n home link add br0 type bridge
        ip -n home link set lan0 master br0
        ip -n home addr add 10.1.0.2/24 dev br0
        ip -n home link set br0 up
        ip -n home link add br1 type bridge
        ip -n home addr add 172.17.0.1/16 dev br1
        ip -n home link set br1 up
        link home veth1 none container eth0 172.17.0.2
        ip -n home link set veth1 master br1
        ip -n home route add default via 10.1.0.1)",
     "",
     {"wire"}},
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
