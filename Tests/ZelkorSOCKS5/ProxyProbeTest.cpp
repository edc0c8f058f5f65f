#include <gtest/gtest.h>

#include "Base/IPv4.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Support.h"
#include "ZelkorSOCKS5/ProxyProbe.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;
using Answer = STUNScript::Answer;

const Bytes loopbackIP{127, 0, 0, 1};
constexpr const char* timedOut = "STUN reply timed out (proxy didn't forward UDP back)";
constexpr const char* malformed = "proxy returned malformed UDP payload";

class ProxyProbe : public testing::Test {
 protected:
  void answer(Answer kind, std::chrono::milliseconds delay = 0ms) {
    STUNScript script;
    script.mappedIP = "198.51.100.9";
    script.mappedPort = 40000;
    script.answer = kind;
    script.delay = delay;
    stun_.setScript(script);
  }
  // The address that was found, or why none was.
  std::string probe(double timeout = 5) {
    const auto outcome =
        SOCKS5Probe::probe("127.0.0.1", proxy_.port(), {}, {}, loopbackIP, stun_.port(), timeout);
    EXPECT_NE(outcome.egressIP.has_value(), outcome.errorDescription.has_value());
    EXPECT_EQ(outcome.supportsUDPAssociate, outcome.egressIP.has_value());
    return outcome.egressIP ? *outcome.egressIP : outcome.errorDescription.value_or("");
  }

  SOCKS5Server proxy_;
  STUNResponder stun_;
};

TEST_F(ProxyProbe, TakesTheFirstDatagramForTheAnswer) {
  const auto descriptors = test::openDescriptors();
  for (const Answer kind : {Answer::normal, Answer::ipv6First, Answer::duplicate}) {
    answer(kind);
    EXPECT_EQ(probe(), "198.51.100.9:40000");
  }
  for (const Answer kind :
       {Answer::garbageFirst, Answer::wrongTransaction, Answer::error, Answer::truncated}) {
    answer(kind);
    EXPECT_EQ(probe(), malformed);
  }
  SOCKS5Script script;
  script.relay = SOCKS5Script::Relay::garbage;
  script.garbage = {Bytes(9)};
  proxy_.setScript(script);
  EXPECT_EQ(probe(), malformed);
  EXPECT_TRUE(test::eventually([&] { return test::openDescriptors() == descriptors; }));
}

TEST_F(ProxyProbe, TellsWhyThereIsNone) {
  answer(Answer::silence);
  const test::Stopwatch time;
  EXPECT_EQ(probe(0.2), timedOut);
  EXPECT_GE(time.seconds(), 0.2);
  EXPECT_LT(time.seconds(), 2);
  answer(Answer::normal, 400ms);  // too late
  EXPECT_EQ(probe(0.2), timedOut);
  SOCKS5Script script;
  script.replyCode = 0x07;
  proxy_.setScript(script);
  EXPECT_EQ(probe(), "UDP ASSOCIATE not supported by proxy");
  proxy_.closeListener();
  EXPECT_EQ(probe(), "TCP connect to proxy failed: connect: " + errorText(ECONNREFUSED));
}

TEST_F(ProxyProbe, HearsNobodyButTheRelay) {
  DatagramSocket relay = DatagramSocket::open();
  relay.bind(socketAddress("127.0.0.1", 0));
  ProbeSocket socket(relay.localAddress());
  socket.send(loopbackIP, "127.0.0.1", 9);
  Bytes heard(64);
  sockaddr_in client{};
  ASSERT_EQ(waitFor(relay.descriptor(), 1, Deadline::max()), Wait::ready);
  EXPECT_EQ(receiveDatagram(relay.descriptor(), heard, client), 14U);
  client = socketAddress("127.0.0.1", portNumber(client));
  EXPECT_EQ(DatagramSocket::open().send(bytesOf("stranger"), client), 8);
  EXPECT_EQ(relay.send(bytesOf("relay"), client), 5);
  EXPECT_EQ(socket.receive(Deadline::max()), test::copyOf(bytesOf("relay")));
  EXPECT_EQ(socket.receive(std::chrono::steady_clock::now() + 20ms), std::nullopt);
}

}  // namespace
}  // namespace zk
