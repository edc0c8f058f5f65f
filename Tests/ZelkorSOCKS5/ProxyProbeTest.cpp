#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "Base/Endpoint.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Support.h"
#include "ZelkorSOCKS5/BindingTransaction.h"
#include "ZelkorSOCKS5/ProxyProbe.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;
using Answer = STUNScript::Answer;

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
    const auto outcome = SOCKS5Probe::probe({"127.0.0.1", proxy_.port(), {}, {}},
                                            {INADDR_LOOPBACK, stun_.port()}, timeout);
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

// Nor is it held up by them: whoever floods the socket does not stop the clock.
TEST_F(ProxyProbe, HearsNobodyButTheRelay) {
  DatagramSocket relay = DatagramSocket::open();
  relay.bind({INADDR_LOOPBACK, 0});
  DatagramSocket socket = DatagramSocket::open();
  socket.bind({INADDR_LOOPBACK, 0});
  BindingTransaction transaction(socket, relay.localAddress());
  EXPECT_EQ(transaction.send({INADDR_LOOPBACK, 9}, 64), 74);
  std::atomic<bool> isOver = false;
  std::thread flood([&, to = socket.localAddress()] {
    DatagramSocket stranger = DatagramSocket::open();
    while (!isOver) {
      stranger.send(bytesOf("stranger"), to);
    }
  });
  const test::Stopwatch time;
  EXPECT_FALSE(
      transaction.await(BindingTransaction::Until::datagram, Deadline::clock::now() + 200ms));
  EXPECT_LT(time.seconds(), 2);
  isOver = true;
  flood.join();
  EXPECT_TRUE(test::eventually([&] {  // the flood may have left no room
    relay.send(bytesOf("relay"), socket.localAddress());
    return transaction.await(BindingTransaction::Until::datagram, Deadline::clock::now() + 20ms)
        .has_value();
  }));
}

}  // namespace
}  // namespace zk
