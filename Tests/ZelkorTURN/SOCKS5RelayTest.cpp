// A relay through the kit's proxy, on a loop that the test turns and a clock that it moves.

#include <array>
#include <atomic>
#include <functional>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Base/Endpoint.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "PrivateNetwork.h"
#include "Support.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/SOCKS5Relay.h"
#include "ZelkorTURN/ServerFixture.h"

namespace zk::test {
namespace {

using namespace std::chrono_literals;
using loopback::EchoPeer;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;

class Relay : public testing::Test, public RelayListener {
 protected:
  Relay() {
    stun_.setScript({.mappedIP = "198.51.100.9", .mappedPort = 4242});
    settings_.proxy = {"127.0.0.1", proxy_.port(), {}, {}};
    settings_.dataPlaneLog = log_.callback();
    proxyAnnounces("127.0.0.1");
  }
  ~Relay() override {
    relay_.reset();
    EXPECT_TRUE(eventually([&] {
      return proxy_.counts().openConnections == 0 && openDescriptors() == descriptors_;
    })) << "something is left, on either side";
  }

  // Where its UDP relay is, whose port is `port_` from the next association on.
  void proxyAnnounces(const char* ip) {
    SOCKS5Script script;
    script.announceIPv4(ip);
    script.editAssociateReply = [this](Bytes reply) {
      port_ = readUInt16(reply, reply.size() - 2);
      return reply;
    };
    proxy_.setScript(script);
  }
  void makeRelay() {
    relay_ = std::make_unique<SOCKS5Relay>(std::make_shared<SOCKS5RelaySettings>(settings_));
  }
  std::string openFailure(OpeningAttempt attempt = {.viaDefault = true}) {
    try {
      opened_ = relay_->open(attempt);
      return "";
    } catch (const SOCKS5Error& error) {
      return error.description();
    }
  }
  void openAndReceive() {
    makeRelay();
    ASSERT_EQ(openFailure(), "");
    relay_->receive({loop_, receiver_, sender_, lineRoom_}, *this);
    fd_ =
        log_.lines("RECV-THREAD start fd=").at(0).substr(std::string("RECV-THREAD start ").size());
  }
  bool turnUntil(const std::function<bool()>& condition) {
    return eventually([&] {
      loop_.turn(false);
      return condition();
    });
  }
  void pass(std::chrono::milliseconds time) {
    now_ += static_cast<std::uint64_t>(std::chrono::nanoseconds(time).count());
    loop_.turn(false);
  }
  Bytes fromPeer(const char* payload) const {
    return SOCKS5UDPFrame::wrap(bytesOf(payload), {0xC0000201, 7});
  }

  void onDatagrams(std::span<const ReceivedDatagram> datagrams) override {
    for (const auto& [payload, peer, name] : datagrams) {
      received_.emplace_back(copyOf(payload),
                             name ? fmt::format("{}:{}", *name, peer.port) : peer.text());
    }
    if (closesOnData_) {
      relay_->close();
    }
  }
  void onAssociationEnd(std::string_view reason) override { ends_.emplace_back(reason); }
  void onLoss(Loss loss) override {
    silences_ += loss == Loss::silent ? 1 : 0;
    relay_.reset();  // as the server does
  }

  std::atomic<std::uint16_t> port_{0};
  SOCKS5Server proxy_;
  STUNResponder stun_;
  EchoPeer peer_;
  const Environment targets_{"ZK_STUN_IPS", stun_.target()};
  std::uint64_t now_ = 1'000'000'000'000;
  EventLoop loop_{[this] { return now_; }};
  DatagramReceiver receiver_;
  DatagramSender sender_;
  std::string lineRoom_;
  const std::ptrdiff_t descriptors_ = openDescriptors();

  Log log_;
  SOCKS5RelaySettings settings_;
  std::unique_ptr<SOCKS5Relay> relay_;
  RelayedAddress opened_;
  std::string fd_;  // "fd=7"
  bool closesOnData_ = false;
  std::vector<std::pair<Bytes, std::string>> received_;
  std::vector<std::string> ends_;
  int silences_ = 0;
};

TEST_F(Relay, OpensAtTheProxysEgressAddressAndItsRelayPortOrTheMappedOne) {
  for (const char* const announced : {"127.0.0.1", "0.0.0.0"}) {  // none: the proxy's own host
    for (const bool mapped : {false, true}) {
      proxyAnnounces(announced);
      settings_.reportsMappedPort = mapped;
      makeRelay();
      EXPECT_EQ(openFailure(), "");
      EXPECT_EQ(opened_.ip, "198.51.100.9");
      EXPECT_EQ(opened_.port, mapped ? 4242 : port_.load());
    }
  }
  EXPECT_EQ(openFailure(), "TCP connect to proxy failed: relay already open");
  // The address is known from before, but the port is another one each time.
  stun_.setScript({.answer = STUNScript::Answer::silence});
  makeRelay();
  EXPECT_EQ(openFailure(),
            "TCP connect to proxy failed: egress probe failed — fail-closed (no gateway fallback)");
}

// A burst of datagrams, the sizes of which the system takes or not, through the proxy and back.
TEST_F(Relay, PassesDatagramsBothWaysInOrderAndLogsThem) {
  openAndReceive();
  std::vector<Bytes> payloads{Bytes(0), Bytes(1), Bytes(1200), Bytes(65497), Bytes(65500)};
  for (std::uint8_t i = 0; i < 40; ++i) {  // more than one burst
    payloads.emplace_back(200, i);
  }
  std::vector<PeerDatagram> burst;
  for (const Bytes& payload : payloads) {
    burst.push_back({payload, Peer(peer_.endpoint())});
  }
  relay_->sendAll(burst);
  const std::string peer = peer_.endpoint().text();
  Texts lines;
  for (const Bytes& payload : payloads) {
    const std::size_t octets = payload.size();
    lines.push_back(fmt::format("SEND {} → {} {}B sendto={}", fd_, peer, octets,
                                octets == 65500 ? -1 : static_cast<int>(octets) + 10));
  }
  EXPECT_EQ(log_.lines("SEND "), lines);
  payloads.erase(payloads.begin() + 4);
  ASSERT_TRUE(turnUntil([&] { return received_.size() == payloads.size(); }));
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    EXPECT_EQ(received_[i], std::pair(payloads[i], peer)) << i;
  }
  EXPECT_EQ(log_.count(fmt::format("RECV unwrap OK from {} 1200B → handler", peer)), 1U);
  EXPECT_EQ(log_.count("RECV recvfrom n=1210"), 1U);
}

TEST_F(Relay, DropsWhatIsMalformedAndWhatStrangersSendUntilItIsClosed) {
  openAndReceive();
  DatagramSocket stranger = DatagramSocket::open();
  stranger.bind({INADDR_LOOPBACK, 0});
  stranger.send(fromPeer("from a stranger"), proxy_.clientAddress(0).value());
  proxy_.injectToClient(0, Bytes(9));
  // Peers are named by the header, whatever type of address it has.
  proxy_.injectToClient(0, hex("FFFF0503 04 68 6F 73 74 0102 AA"));
  ASSERT_TRUE(turnUntil([&] { return !received_.empty(); }));
  EXPECT_EQ(received_, (std::vector{std::pair(Bytes{0xAA}, std::string("host:258"))}));
  EXPECT_EQ(log_.lines("RECV "),
            (Texts{"RECV recvfrom n=25",
                   fmt::format("RECV from stranger 127.0.0.1:{} 25B (DROPPED)",
                               stranger.localAddress().port),
                   "RECV recvfrom n=9", "RECV unwrap FAILED 9B (DROPPED)", "RECV recvfrom n=12",
                   "RECV unwrap OK from host:258 1B → handler"}));
  // The listener closes it while the end of the control connection is at hand, too.
  closesOnData_ = true;
  proxy_.injectToClient(0, fromPeer("the last"));
  proxy_.closeControlConnections();
  ASSERT_TRUE(eventually([&] { return proxy_.counts().openConnections == 0; }));
  pass(1s);
  const Bytes payload(1);
  relay_->sendAll(std::vector<PeerDatagram>{{payload, Peer(peer_.endpoint())}});
  pass(1s);
  EXPECT_EQ(received_.size(), 2U);
  EXPECT_TRUE(ends_.empty());
  EXPECT_EQ(log_.count("SEND"), 0U);
}

// It goes on as long as datagrams come, and five seconds more.
TEST_F(Relay, OutlivesItsControlConnectionWhileTheProxyCarriesDatagrams) {
  openAndReceive();
  const auto own = proxy_.clientAddress(0).value();
  pass(10s);
  proxy_.closeControlConnections();
  ASSERT_TRUE(turnUntil([&] { return !ends_.empty(); }));
  // In the place of the proxy, which lets go of its socket with the connection.
  ASSERT_TRUE(eventually([&] { return proxy_.counts().openAssociations == 0; }));
  DatagramSocket relay = DatagramSocket::open();
  relay.bind({INADDR_LOOPBACK, port_});
  DatagramSocket stranger = DatagramSocket::open();
  for (std::size_t i = 1; i <= 3; ++i) {
    pass(4900ms);
    relay.send(fromPeer("still here"), own);
    ASSERT_TRUE(turnUntil([&] { return log_.count("RECV unwrap OK") == i; }));
  }
  pass(4900ms);
  stranger.send(fromPeer("does not count"), own);
  ASSERT_TRUE(turnUntil([&] { return log_.count("stranger") == 1; }));
  EXPECT_EQ(silences_, 0);
  pass(101ms);
  EXPECT_EQ(silences_, 1);
  pass(1min);
  EXPECT_EQ(silences_, 1);
  EXPECT_EQ(ends_.size(), 1U);
}

// Towards a host that does not take anything for a while. The ports tell the datagrams apart.
TEST_F(Relay, KeepsWhatTheSystemDoesNotTakeWithinLimits) {
  const PrivateNetwork network;
  if (!network || !network.setReachable(true)) {
    GTEST_SKIP() << "needs root: sudo scripts/test";
  }
  const Environment viaDefault("ZK_EGRESS_VIA_DEFAULT", "1");
  SOCKS5Server proxy({}, network.host);
  STUNResponder stun({.mappedIP = "198.51.100.9"}, network.host);
  const Environment targets("ZK_STUN_IPS", stun.target());
  settings_.proxy = {network.host, proxy.port(), {}, {}};
  openAndReceive();
  const Bytes payload(1000);
  const auto send = [&](int from, int to) {
    std::vector<PeerDatagram> burst;
    for (int i = from; i < to; ++i) {
      burst.push_back({payload, Peer({0xC0000201, static_cast<std::uint16_t>(i)})});
    }
    relay_->sendAll(burst);
  };
  const auto takeLines = [&] {
    const Texts lines = log_.lines("SEND ");
    log_.clear();
    return lines;
  };
  const auto lines = [&](const std::vector<std::array<int, 3>>& fates) {
    Texts all;
    for (const auto& [from, to, sent] : fates) {
      for (int i = from; i < to; ++i) {
        all.push_back(fmt::format("SEND {} → 192.0.2.1:{} 1000B sendto={}", fd_, i, sent));
      }
    }
    return all;
  };
  const int most = SendBacklog::maxOctets / 1000;
  const int all = 20'000;  // more than any socket has room for

  ASSERT_TRUE(network.setReachable(false));
  send(0, all);
  const int taken = static_cast<int>(log_.count("=1010"));  // by the system
  ASSERT_GT(taken, 0);
  ASSERT_EQ(takeLines(), lines({{0, taken, 1010}, {taken + most, all, -1}}))
      << "more than a MiB is not kept";

  pass(299ms);
  EXPECT_EQ(takeLines(), Texts{}) << "tried again, with no better luck";
  ASSERT_TRUE(network.setReachable(true));
  send(all, all + 3);  // behind those that wait, and dropped: there is no room
  pass(1ms);
  EXPECT_EQ(takeLines(), lines({{all, all + 3, -1}, {taken, taken + most, 1010}}))
      << "in order, as soon as there is room";
  send(all, all + 1);
  EXPECT_EQ(takeLines(), lines({{all, all + 1, 1010}})) << "at once, as nothing waits";

  ASSERT_TRUE(network.setReachable(false));
  send(0, taken + 2);
  send(all, all + 1);
  EXPECT_EQ(takeLines(), lines({{0, taken, 1010}}));
  pass(301ms);
  EXPECT_EQ(takeLines(), lines({{taken, taken + 2, -1}, {all, all + 1, -1}}))
      << "nobody wants what is so old";
  send(0, 1);
  relay_->close();
  pass(1s);
  EXPECT_EQ(takeLines(), Texts{});
}

}  // namespace
}  // namespace zk::test
