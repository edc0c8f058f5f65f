#include <future>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Base/Endpoint.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Support.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/EgressProbe.h"
#include "ZelkorTURN/ServerFixture.h"

namespace zk::test {
namespace {

using namespace std::chrono_literals;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;
using How = STUNScript::Answer;

// An association of the kit's proxy and the socket to probe with.
class Association {
 public:
  Association() {
    control_.connect();
    relay = control_.performHandshakeAndUDPAssociate().relayAddress;
    socket.bind({INADDR_LOOPBACK, 0});
  }
  std::string probe(const std::string& gateway, int seconds = 8, const StopSignal* stop = nullptr) {
    const Egress egress = probeEgressIP(socket, relay, gateway, seconds, log.callback(), stop);
    return egress.port ? fmt::format("{}:{}", egress.ip, *egress.port) : egress.ip;
  }

  SOCKS5Server proxy;
  Endpoint relay;
  DatagramSocket socket = DatagramSocket::open();
  Log log;

 private:
  SOCKS5Control control_{"127.0.0.1", proxy.port(), {}, {}, 5};
};

STUNScript saying(const char* ip, How answer = How::normal, milliseconds delay = 0ms) {
  return {.mappedIP = ip, .mappedPort = 40000, .answer = answer, .delay = delay};
}

// A name that no other probe uses, as the cache is shared by all.
std::string freshGateway() {
  static int count = 0;
  return fmt::format("gateway-{}", ++count);
}

// One window of 1.5 seconds for all of them: what is no answer of this target, or comes from
// elsewhere than the proxy's relay, is passed over.
TEST(EgressProbe, PassesOverWhateverIsNotTheAnswer) {
  Association association;
  STUNResponder stun(saying("", How::silence));
  SOCKS5Script recording;
  recording.recordFrames = true;
  association.proxy.setScript(recording);
  const Environment targets("ZK_STUN_IPS", stun.target());
  auto egress = std::async(std::launch::async, [&] { return association.probe(freshGateway()); });
  ASSERT_TRUE(eventually([&] { return stun.requests() == 1; }));
  // 198.51.100.9:40000, to the request that the proxy has seen.
  Bytes answer = hex("00000001 7F000001 0D96 0101000C2112A442");
  const Bytes request = association.proxy.frames(0).at(0);
  answer.insert(answer.end(), request.begin() + 18, request.begin() + 30);
  const Bytes attribute = hex("00200008 0001 BD52 E721C04B");
  answer.insert(answer.end(), attribute.begin(), attribute.end());

  DatagramSocket stranger = DatagramSocket::open();
  stranger.bind({INADDR_LOOPBACK, 0});
  Bytes byStranger = answer;
  byStranger[byStranger.size() - 1] ^= 1;  // another address, or nobody could tell
  stranger.send(byStranger, association.socket.localAddress());
  for (const std::size_t kept : {0U, 9U, 10U, 11U, 29U, 37U}) {
    association.proxy.injectToClient(0, ByteView(answer).first(kept));
  }
  for (const std::size_t changed : {10U, 11U, 14U, 20U}) {  // method, class, cookie, transaction
    Bytes other = answer;
    other[changed] ^= 0x10;
    association.proxy.injectToClient(0, other);
  }
  association.proxy.injectToClient(0, answer);
  EXPECT_EQ(egress.get(), "198.51.100.9:40000");
}

TEST(EgressProbe, GivesEachTargetItsWindowAndIgnoresTheLateAnswerOfAnother) {
  Association association;
  STUNResponder late(saying("198.51.100.1", How::normal, 1700ms));
  STUNResponder prompt(saying("198.51.100.2", How::normal, 500ms));
  const Environment targets("ZK_STUN_IPS", late.target() + ',' + prompt.target());
  const Stopwatch time;
  EXPECT_EQ(association.probe(freshGateway()), "198.51.100.2:40000");
  EXPECT_GE(time.seconds(), 1.9);  // a window of 1.5 seconds and the delay
  EXPECT_LT(time.seconds(), 2.6);
  EXPECT_EQ(association.log.count("✗ no STUN response from 127.0.0.1 within window"), 1U);
}

// Within its time, however many there are to ask, and at once when it is told to stop.
TEST(EgressProbe, FailsClosedWithoutAnAnswer) {
  Association association;
  STUNResponder stun(saying("", How::silence));
  const Environment targets("ZK_STUN_IPS", fmt::format("{0},{0},{0},{0},{0},{0}", stun.target()));
  for (const bool stops : {false, true}) {
    StopSignal stop;
    const Stopwatch time;
    auto egress = std::async(std::launch::async, [&] {
      return association.probe(freshGateway(), stops ? 8 : 1, &stop);
    });
    if (stops) {
      std::this_thread::sleep_for(aMoment);
      stop.raise();
    }
    EXPECT_EQ(egress.get(), "");
    EXPECT_LT(time.seconds(), stops ? 0.6 : 1.6);
    EXPECT_GE(time.seconds(), stops ? 0.1 : 0.9);
  }
  EXPECT_EQ(association.log.count("all targets failed → fail-closed (no gateway fallback)"), 2U);
}

TEST(EgressProbe, TakesTheFirstAnswerOrElseTheLastAddressOfTheSameGateway) {
  Association association;
  STUNResponder stun(saying("198.51.100.9"));
  STUNResponder second(saying("198.51.100.10"));
  const Environment targets("ZK_STUN_IPS", stun.target() + ',' + second.target());
  const std::string known = freshGateway();
  EXPECT_EQ(association.probe(known), "198.51.100.9:40000");
  EXPECT_EQ(association.log.lines(), (Texts{"ENTER probe gateway=" + known + " timeout=8s",
                                            "using 2 STUN IPs from ZK_STUN_IPS env",
                                            "targets: " + stun.target() + ',' + second.target(),
                                            "→ STUN to " + stun.target() + " via relay sendRC=30",
                                            "✓ egress discovered = 198.51.100.9 (via 127.0.0.1)"}));
  EXPECT_EQ(second.requests(), 0U);
  stun.setScript(saying("198.51.100.8"));
  EXPECT_EQ(association.probe(known), "198.51.100.8:40000");  // the newer one counts
  stun.setScript(saying("", How::silence));
  second.setScript(saying("", How::silence));
  EXPECT_EQ(association.probe(known, 1), "198.51.100.8") << "without the port of back then";
  EXPECT_EQ(association.log.count("all targets failed → last-known-good egress 198.51.100.8"), 1U);
  EXPECT_EQ(association.probe(freshGateway(), 1), "");
  EXPECT_EQ(association.probe(known, 0), "198.51.100.8");  // no time even to ask
  EXPECT_EQ(stun.requests(), 4U);
}

// With a socket that cannot send, so that nothing leaves the machine whatever the list says; a
// target that cannot be asked is not waited for.
TEST(EgressProbe, TargetsAreReadLenientlyAndUsedAsTheyStand) {
  const Environment targets("ZK_STUN_IPS",
                            ",203.0.113.7:1,,203.0.113.7,203.0.113.7:2:1,203.0.113.7:70000,"
                            "203.0.113.7:-3,203.0.113.7:,:4,203.0.113.7: 5,203.0.113.7:6x,"
                            "203.0.113.7::7,203.0.113.7:0,203.0.113.8:65535, 203.0.113.7:8,"
                            "stun.invalid:3478,");
  const std::string read =
      "203.0.113.7:1,203.0.113.7:7,203.0.113.7:0,203.0.113.8:65535, 203.0.113.7:8,"
      "stun.invalid:3478";
  DatagramSocket none;
  Log log;
  const Stopwatch time;
  EXPECT_EQ(probeEgressIP(none, {}, freshGateway(), 8, log.callback()).ip, "");
  EXPECT_LT(time.seconds(), 1.0);
  EXPECT_EQ(log.lines("targets: "), Texts{"targets: " + read});
  EXPECT_EQ(log.count("via relay sendRC=-1"), 6U);
}

}  // namespace
}  // namespace zk::test
