// The daemon on machines whose network is not simple, or changes in mid-call, with a proxy behind a
// real network: which way its packets go, seen from outside.

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include "EndToEnd/Rig.h"
#include "Loopback/SOCKS5Frame.h"
#include "NetworkLab/NetworkLab.h"
#include "Platform/Sockets.h"

namespace zk::lab {
namespace {

using namespace test;
using Traffic = std::set<std::string>;

constexpr const char* anyLog[] = {"/tmp/zkturnd.log", "/tmp/zkturnd-dp.log", "/tmp/zk-egress.log"};

std::string checkBinary;
std::string whyNoLab;  // empty when the lab can be built

const std::string wire = R"(
link home lan0 10.1.0.2 router wire 10.1.0.1
route default via 10.1.0.1 metric 100
)";
const std::string vpn = "route default dev vpn metric 50; trafficTakes vpn\n";
const std::string wireAndVPN = wire + vpn;
const std::string secondWire = R"(
link home lan1 10.1.1.2 router wire2 10.1.1.1
route default via 10.1.1.1 metric 200
)";
const std::string containers = R"(
host container
link home veth1 none container eth0 172.17.0.2
bridge docker0 172.17.0.1 veth1
)";
const std::string publicProxy = "ip -n router route add 203.0.113.2 via 10.2.0.2";

void expectIn(const std::string& text, const std::string& part) {
  EXPECT_NE(text.find(part), std::string::npos) << part << "\n  is not in\n" << text;
}

// The packets of a call that goes this way.
Traffic by(const std::string& link, const std::string& proxy = NetworkLab::proxyInner) {
  return {"TCP to " + proxy + " by " + link, "UDP to " + proxy + " by " + link};
}

Traffic both(Traffic one, const Traffic& other) {
  one.insert(other.begin(), other.end());
  return one;
}

// Everything beyond home: Dante with the internet behind it, or in one place all of it, scripted.
struct FarSide {
  const char* host = "internet";  // where the STUN server and the peer are, and what is scripted
  const char* ip = NetworkLab::internet;
  const char* proxy = NetworkLab::proxyInner;  // as the configuration has it
  const char* announces = nullptr;             // in the answer to UDP ASSOCIATE
  milliseconds delay{0};                       // of all answers
};

class NetworkLabTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!whyNoLab.empty()) {
      GTEST_SKIP() << "needs root, and what the network lab is made of: " << whyNoLab;
    }
  }

  void build(const std::string& homeScript, const FarSide& far = {}) {
    lab = std::make_unique<NetworkLab>(homeScript);
    NetworkLab::in(far.host, [&] {
      const STUNScript script{.mappedIP = NetworkLab::proxyPublic, .delay = far.delay};
      stun = std::make_unique<STUNResponder>(script, far.ip, 3478);
      peer = std::make_unique<EchoPeer>(far.ip, 7000);
      if (far.host != std::string("internet")) {
        SOCKS5Script proxyScript;
        for (auto* const step : {&proxyScript.onGreeting, &proxyScript.onAssociate}) {
          step->delay = far.delay;
        }
        if (far.announces != nullptr) {
          proxyScript.announceIPv4(far.announces);
        }
        proxy = std::make_unique<SOCKS5Server>(proxyScript, far.ip, NetworkLab::proxyPort);
      }
    });
    config.proxyHost = far.proxy;
    config.proxyPort = NetworkLab::proxyPort;
  }

  // Starts the daemon at home, run by nobody.
  void start(const char* viaDefault = nullptr) {
    const std::map<std::string, std::string> environment{
        {"ZK_STUN_IPS", stun->target()},
        {"ZK_EGRESS_VIA_DEFAULT", viaDefault == nullptr ? "" : viaDefault}};
    for (const char* const log : anyLog) {
      unlink(log);
    }
    NetworkLab::in("home", [&] {
      daemon = std::make_unique<DaemonProcess>("/run/zkturnd-as-nobody", environment);
      daemon->write(config.line());
      port = daemon->waitReady(patience).value_or(0);
    });
  }

  // A new client, which is `client` from now on.
  TURNAnswer allocate() {
    NetworkLab::in("home", [&] { client = std::make_unique<TURNClient>(port); });
    client->setTimeout(longPatience);
    return client->allocate();
  }

  bool echoesWithin(milliseconds limit) {
    return echoes(*client, *peer, bytesOf("hello"), {}, limit);
  }

  // Allocates and sends a datagram to the peer and back.
  void expectCallWorks() {
    const TURNAnswer answer = allocate();
    ASSERT_TRUE(answer.success()) << answer.errorCode() << contentOf(anyLog[0]);
    // Not where the proxy is reached, but its other address, which is what the peer sees.
    EXPECT_EQ(answer.relayedAddress()->ip(), NetworkLab::proxyPublic);
    ASSERT_TRUE(client->createPermission(peer->endpoint()).success());
    EXPECT_TRUE(echoesWithin(patience));
  }

  // Ends the daemon. Its log, which is complete then.
  std::string end() {
    daemon->terminate();
    EXPECT_EQ(daemon->waitExit(patience), 0);
    return contentOf(anyLog[0]);
  }

  // What has left home since the last look.
  Traffic traffic() {
    Traffic kinds;
    for (const auto& [kind, count] : lab->takeTraffic()) {
      kinds.insert(kind);
    }
    return kinds;
  }

  std::unique_ptr<NetworkLab> lab;
  std::unique_ptr<STUNResponder> stun;
  std::unique_ptr<SOCKS5Server> proxy;
  std::unique_ptr<EchoPeer> peer;
  DaemonConfig config;
  std::unique_ptr<DaemonProcess> daemon;
  std::unique_ptr<TURNClient> client;
  std::uint16_t port = 0;
};

TEST_F(NetworkLabTest, PinningAndLoggingNeedNoPrivilege) {
  build(wireAndVPN);
  start();
  expectCallWorks();
  NetworkLab::in("home",
                 [] { ASSERT_EQ(std::system("ss -Htno dport = 1080 >/run/connections"), 0); });
  expectIn(contentOf("/run/connections"), "timer:(keepalive,");
  EXPECT_EQ(peer->lastSource()->ip(), NetworkLab::proxyPublic);
  const std::string status = contentOf("/proc/" + std::to_string(daemon->pid()) + "/status");
  expectIn(status, "\nUid:\t65534\t65534\t65534\t65534\n");
  expectIn(status, "\nGroups:\t \n");
  for (const char* const set : {"CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
    expectIn(status, std::string(set) + ":\t0000000000000000\n");
  }
  expectIn(end(), "relay OPEN ok (en0) ip=203.0.113.2 ");
  EXPECT_EQ(traffic(), by("wire"));
  for (const char* const log : anyLog) {
    struct stat about {};
    EXPECT_EQ(stat(log, &about), 0) << log;
    EXPECT_EQ(about.st_uid, 65534U) << log;
    EXPECT_GT(about.st_size, 0) << log;
  }
}

// To a peer on a channel, and by indications to one that never answers and to nobody.
TEST_F(NetworkLabTest, NotOnePacketOfACallLeavesHomeForAnybodyButTheProxy) {
  constexpr std::size_t rounds = 1000;
  build(wireAndVPN);
  start();
  expectCallWorks();
  std::unique_ptr<EchoPeer> silent;
  NetworkLab::in("internet", [&] {
    silent = std::make_unique<EchoPeer>(NetworkLab::peers[0]);
    silent->setEcho(false);
  });
  const Bytes payload(200, 0xA5);
  ASSERT_TRUE(client->bindChannel(0x4000, peer->endpoint()).success());
  for (std::size_t round = 0; round < rounds; ++round) {
    client->sendIndication(silent->endpoint(), payload);
    client->sendIndication(endpointAt(NetworkLab::internet, 9), payload);
    ASSERT_TRUE(echoes(*client, *peer, payload, 0x4000)) << "round " << round;
  }
  // Nothing comes back that would tell that the last one has arrived.
  EXPECT_TRUE(eventually([&] { return silent->received() == rounds; })) << silent->received();
  EXPECT_TRUE(client->refresh(0).success());
  end();

  auto sent = lab->takeTraffic();
  // What leaves in one burst is one packet here, as it would be cut by the network card.
  EXPECT_GE(sent["UDP to 10.2.0.2 by wire"], rounds) << "the recorder has missed the call";
  EXPECT_GT(sent["TCP to 10.2.0.2 by wire"], 0U);
  EXPECT_EQ(sent.size(), 2U);
}

// What all tests here rely on.
TEST_F(NetworkLabTest, OneStrayPacketOnEitherLinkIsNoticed) {
  build(wireAndVPN);
  NetworkLab::change("route 198.51.100.12 via 10.1.0.1");
  EXPECT_EQ(traffic(), Traffic{});
  NetworkLab::in("home", [] {
    EchoPeer stray("0.0.0.0");
    stray.send(endpointAt(NetworkLab::peers[0], 7000), bytesOf("stray"));
    stray.send(endpointAt(NetworkLab::peers[1], 7000), bytesOf("stray"));
  });
  const Traffic strays{"UDP to 198.51.100.11 by vpn", "UDP to 198.51.100.12 by wire"};
  Traffic seen;
  EXPECT_TRUE(eventually([&] { return (seen = both(seen, traffic())) == strays; }));
}

// Whoever suspects that a proxy's user is here must not get an answer through the proxy.
TEST_F(NetworkLabTest, WhatScansThePortsOfHomeDoesNotReachTheClient) {
  build(wire);
  start();
  expectCallWorks();
  NetworkLab::in("home",
                 [] { ASSERT_EQ(std::system("ss -Huan | awk '{print $4}' >/run/sockets"), 0); });
  int scanned = 0;
  NetworkLab::in("router", [&] {
    EchoPeer scanner("10.1.0.1");
    const Bytes frame = socks5Frame(endpointAt(NetworkLab::peers[0], 7000), bytesOf("you?"));
    std::ifstream sockets("/run/sockets");
    for (std::string each; sockets >> each; ++scanned) {
      const int number = std::stoi(each.substr(each.find(':') + 1));
      scanner.send(endpointAt("10.1.0.2", static_cast<std::uint16_t>(number)), frame);
    }
  });
  EXPECT_GE(scanned, 2) << "the client's and the relay's at least";
  EXPECT_TRUE(echoesWithin(patience)) << "the first that comes is from the scanner";
  end();
  EXPECT_EQ(traffic(), by("wire"));
}

// How long a call is told that all is well after its way has gone.
double secondsUntilTold(TURNClient& client) {
  const Stopwatch time;
  while (client.refresh({}).success() && time.seconds() < 60) {
    std::this_thread::sleep_for(aMoment);
  }
  return time.seconds();
}

// A neighbour answers for the proxy meanwhile, and hears nothing but the question.
TEST_F(NetworkLabTest, ACallWhoseWayAVPNHasTakenIsToldAtOnceAndGoesByTheVPN) {
  build(wire);
  start();
  expectCallWorks();
  std::this_thread::sleep_for(aMoment);  // for what is acknowledged late
  traffic();
  NetworkLab::change("ip -n home route del default\n" + vpn + "neighbourAnswers");
  const double seconds = secondsUntilTold(*client);
  EXPECT_GE(seconds, 1.5);
  EXPECT_LT(seconds, 6);
  expectCallWorks();
  Traffic seen = traffic();
  seen.erase("ARP to 10.2.0.2 by wire");
  EXPECT_EQ(seen, by("vpn"));
  expectIn(end(), "relay CUT OFF from the proxy, released for 127.0.0.1:");
}

TEST_F(NetworkLabTest, AnInterfaceThatIsGoneForGoodTakesItsRelaysAlong) {
  build(wireAndVPN);
  start();
  const auto descriptors = [&] {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon->pid()) + "/fd");
    return std::distance(begin(all), std::filesystem::end(all));
  };
  const auto before = descriptors();
  expectCallWorks();
  NetworkLab::change("ip -n home link del lan0");
  const double seconds = secondsUntilTold(*client);
  EXPECT_GE(seconds, 29);
  EXPECT_LT(seconds, 40);
  EXPECT_TRUE(eventually([&] { return descriptors() == before; })) << descriptors() - before;
  expectCallWorks();
}

// The system asks it after 20 seconds of silence; then nothing has come for 5 seconds more.
TEST_F(NetworkLabTest, AProxyThatVanishesWithoutAWordEndsItsRelays) {
  build(wire);
  start();
  expectCallWorks();
  NetworkLab::change("onWire blackhole; ip -n router rule add pref 11 iif proxy blackhole");
  const double seconds = secondsUntilTold(*client);
  EXPECT_GE(seconds, 20);
  EXPECT_LT(seconds, 48);
  expectIn(end(), "relay SILENT since its end");
}

TEST_F(NetworkLabTest, ACableThatIsOutForTenSecondsEndsNoCallThoughAVPNIsUp) {
  build(wireAndVPN);
  start();
  expectCallWorks();
  NetworkLab::change("ip -n home link set lan0 down");
  std::this_thread::sleep_for(std::chrono::seconds(10));
  EXPECT_TRUE(client->refresh({}).success());
  NetworkLab::change("ip -n home link set lan0 up; route default via 10.1.0.1 metric 100");
  EXPECT_TRUE(echoesWithin(patience));
}

// A step changes the network and looks at the call from before, if there is one; then at a new
// call.
struct Step {
  std::string script;
  Traffic traffic;  // of both
  enum { works, fails, none } newCall = works;
  bool oldCallLives = true;
};

struct Scenario {
  const char* name;
  std::vector<Step> steps;
  FarSide far{};
  std::vector<std::string> log{};    // what stands in it
  const char* viaDefault = nullptr;  // ZK_EGRESS_VIA_DEFAULT
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

class ScenarioTest : public NetworkLabTest, public testing::WithParamInterface<Scenario> {
 protected:
  // zkturn check goes the ways of the daemon, and finds what the daemon will find.
  void expectCheckSaysSo(const Step& step, bool viaDefault) {
    std::vector<std::string> command{
        checkBinary, "check",        HostPort{config.proxyHost, NetworkLab::proxyPort}.text(),
        "--stun",    stun->target(), "--count",
        "1",         "--idle",       "0"};
    if (viaDefault) {
      command.emplace_back("--via-default");
    }
    NetworkLab::in("home", [&] {
      ChildProcess check(command, {}, "/tmp/check");
      EXPECT_EQ(check.waitExit(longPatience), step.newCall == Step::works ? 0 : 1);
    });
    EXPECT_EQ(traffic(), step.traffic) << contentOf("/tmp/check");
  }
};

TEST_P(ScenarioTest, CallsTakeTheRightWay) {
  const Scenario& scenario = GetParam();
  const std::string asked = "ARP to 10.2.0.2 by wire";
  Traffic expected;
  for (const Step& step : scenario.steps) {
    SCOPED_TRACE(step.script);
    if (daemon == nullptr) {
      build(step.script, scenario.far);
      expectCheckSaysSo(step, scenario.viaDefault != nullptr);
      start(scenario.viaDefault);
    } else {
      NetworkLab::change(step.script);
      EXPECT_EQ(echoesWithin(step.oldCallLives ? patience : aMoment), step.oldCallLives);
    }
    if (step.newCall == Step::works) {
      expectCallWorks();
    } else if (step.newCall == Step::fails) {
      EXPECT_EQ(allocate().errorCode(), 500);
    }
    Traffic seen = traffic();
    std::erase_if(seen, [&](const std::string& kind) {  // what came before, acknowledged late
      return kind.starts_with("TCP") && expected.contains(kind) && !step.traffic.contains(kind);
    });
    // The kernel may ask for the proxy when a control connection ends that has lost its route. The
    // neighbour answers, and so whatever followed would be seen.
    if (!step.oldCallLives) {
      seen.erase(asked);
    }
    EXPECT_EQ(seen, step.traffic);
    expected.insert(step.traffic.begin(), step.traffic.end());
  }
  const std::string log = end();
  for (const std::string& line : scenario.log) {
    expectIn(log, line);
  }
  Traffic rest = both(expected, traffic());
  if (!scenario.steps.back().oldCallLives) {
    rest.erase(asked);
  }
  EXPECT_EQ(rest, expected) << "at the end";
}

const std::string udpByVPN = "UDP to 10.2.0.2 by vpn";
const std::string noEgress =
    "relay OPEN en0 failed (TCP connect to proxy failed: egress probe failed";
const std::string noAnswer = "TCP connect to proxy failed: connect: connect timeout";
const Scenario scenarios[] = {
    // One rung each. The control connection stays pinned.
    {"TheWireCarriesOnlyTCP",
     {{wireAndVPN + "onWire ipproto udp blackhole", both(by("wire"), {udpByVPN})},
      {"", {udpByVPN}, Step::none}},
     {},
     {noEgress, "relay OPEN ok (via-default) ip=203.0.113.2 "}},
    {"TheWireIsCutAndNothingSaysToLeaveIt",
     {{wireAndVPN + "onWire blackhole", {"TCP to 10.2.0.2 by wire"}, Step::fails}},
     {},
     {"relay OPEN en0 failed (" + noAnswer + ")", "relay OPEN FAILED both rungs: " + noAnswer}},
    // The first rung's datagrams are pinned all the same.
    {"TheWireIsCutAndTheEnvironmentSaysToLeaveIt",
     {{wireAndVPN + "onWire blackhole", both(by("vpn"), {"UDP to 10.2.0.2 by wire"})}},
     {},
     {noEgress, "relay OPEN ok (via-default) ip=203.0.113.2 "},
     "1"},
    {"AVPNTakesTheDefaultRouteInThreeWays",
     {{wire, by("wire")},
      {vpn, by("wire")},
      {R"(ip -n home route del default dev vpn
          route 0.0.0.0/1 dev vpn; route 128.0.0.0/1 dev vpn; trafficTakes vpn)",
       by("wire")},
      {R"(ip -n home route del 0.0.0.0/1; ip -n home route del 128.0.0.0/1
          route default dev vpn table 100
          ip -n home rule add pref 100 table main suppress_prefixlength 0
          ip -n home rule add pref 101 not fwmark 100 table 100
          trafficTakes vpn)",
       by("wire")}}},
    // A neighbour answers for the proxy, and must get neither the password nor the call.
    {"AVPNHasRemovedTheDefaultRouteOfTheWire",
     {{wire + "ip -n home route del default\n" + vpn + "neighbourAnswers", by("vpn")}}},
    {"AVPNRemovesTheDefaultRouteOfTheWireInMidCall",
     {{wire, by("wire")},
      {"ip -n home route del default\n" + vpn + "neighbourAnswers", by("vpn"), Step::works,
       false}}},
    {"TheBestWireIsUnplugged",
     {{wireAndVPN + secondWire, by("wire")},
      {"ip -n home link set lan0 down", by("wire2"), Step::works, false},
      {"ip -n home link set lan0 up; route default via 10.1.0.1 metric 100",
       {"UDP to 10.2.0.2 by wire2"},
       Step::none}}},
    {"TheAddressGoesAndComesBack",
     {{wireAndVPN, by("wire")},
      {"ip -n home addr del 10.1.0.2/24 dev lan0", {}, Step::none, false},
      {"end home lan0 10.1.0.2; route default via 10.1.0.1 metric 100", by("wire")}}},
    {"TheFirstCallComesBeforeTheNetwork",
     {{"link home lan0 none router wire 10.1.0.1; route default dev vpn metric 50", by("vpn")},
      {"end home lan0 10.1.0.2; route default via 10.1.0.1 metric 100",
       both(by("wire"), {udpByVPN})}}},
    {"TheFirstWireHasNoRoute",
     {{"link home lan0 10.1.0.2 router wire 10.1.0.1\n" + secondWire + vpn, by("wire2")}}},
    {"TheProxyIsInAContainer",
     {{wireAndVPN + containers, {}}},
     {"container", "172.17.0.2", "172.17.0.2"}},
    {"TheProxyIsInACompanysVPN",
     {{wire, by("vpn", "10.8.0.1")}, {"ip -n home link set vpn down", {}, Step::none, false}},
     {"router", "10.8.0.1", "10.8.0.1"}},
    {"TheProxyIsOnThisMachineByName",
     {{wireAndVPN + "name this-machine 127.0.1.1", {}}},
     {"home", "127.0.1.1", "this-machine"}},
    // The first of its addresses is dead. UDP goes where TCP has gone.
    {"TheProxyHasSeveralAddressesAndAnswersWithNone",
     {{wireAndVPN + R"(
          ip -n proxy addr add 10.2.0.3/24 dev inner; ip -n proxy addr add 10.2.0.4/24 dev inner
          name proxy.example 10.2.0.3; name proxy.example 10.2.0.4)",
       both(by("wire", "10.2.0.4"), {"TCP to 10.2.0.3 by wire"})}},
     {"proxy", "10.2.0.4", "proxy.example", "0.0.0.0"}},
    // Nothing listens there, so that the other address is taken.
    {"TheProxyHasAnIPv6AddressAsWell",
     {{wireAndVPN + R"(
          ipv6 home lan0 fd00:1::2; ipv6 home vpn fd00:8::2
          ipv6 router wire fd00:1::1; ipv6 router vpn fd00:8::1; ipv6 router lo fd00:2::2
          ip -n home -6 route add default via fd00:1::1 metric 100
          ip -n home -6 route add default dev vpn metric 50
          name proxy.example fd00:2::2; name proxy.example 10.2.0.2)",
       both(by("wire"), {"TCP to fd00:2::2 by wire"})}},
     {"internet", NetworkLab::internet, "proxy.example"}},
    {"ADistantPublicProxyAnswersWithAPrivateAddress",
     {{wireAndVPN + publicProxy, by("wire", "203.0.113.2")}},
     {"proxy", "203.0.113.2", "203.0.113.2", "192.168.7.7", milliseconds(400)}},
    {"AProxyAnswersWithAMulticastAddress",
     {{wireAndVPN + publicProxy, {"TCP to 203.0.113.2 by wire"}, Step::fails}},
     {"proxy", "203.0.113.2", "203.0.113.2", "224.0.0.9"}},
};

INSTANTIATE_TEST_SUITE_P(Scenarios, ScenarioTest, testing::ValuesIn(scenarios),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace
}  // namespace zk::lab

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    // In there this process is the first.
    const std::string path = zk::test::pathByDescriptor(zk::test::programBeside("zkturn"));
    zk::lab::checkBinary = "/proc/1" + path.substr(path.rfind("/fd/"));
    zk::lab::whyNoLab = zk::lab::enterPrivateMachine(ZK_DAEMON);
  }
  return RUN_ALL_TESTS();
}
