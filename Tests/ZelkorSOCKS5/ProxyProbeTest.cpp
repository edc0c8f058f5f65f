#include <gtest/gtest.h>

#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Platform/Sockets.h"
#include "Support.h"
#include "ZelkorSOCKS5/ProxyProbe.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"

// The count of an exception's owners is kept inside libstdc++, where ThreadSanitizer does not look:
// it takes the last of two owners for a racer. Without that sanitizer nobody calls this.
extern "C" const char* __tsan_default_suppressions() {
  return "race:std::__exception_ptr::exception_ptr::_M_release\n";
}

namespace zk {
namespace {

using namespace std::chrono_literals;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;
using Answer = STUNScript::Answer;

const Bytes loopbackIP{127, 0, 0, 1};

class ProxyProbe : public testing::Test {
 protected:
  ProxyProbe() {
    STUNScript script;
    script.mappedIP = "198.51.100.9";
    script.mappedPort = 40000;
    stun_.setScript(script);
  }
  ~ProxyProbe() override {
    // Whatever the outcome, its threads and sockets are gone soon.
    EXPECT_TRUE(test::eventually([&] {
      return test::openDescriptors() == descriptors_ && test::runningThreads() == threads_;
    }));
  }

  void answer(Answer kind, std::chrono::milliseconds delay = 0ms) {
    STUNScript script;
    script.mappedIP = "198.51.100.9";
    script.mappedPort = 40000;
    script.answer = kind;
    script.delay = delay;
    stun_.setScript(script);
  }
  SOCKS5Probe::Outcome probe(double timeout = 5) {
    const auto outcome =
        SOCKS5Probe::probe("127.0.0.1", proxy_.port(), {}, {}, loopbackIP, stun_.port(), timeout)
            .get();
    EXPECT_NE(outcome.egressIP.has_value(), outcome.errorDescription.has_value());
    EXPECT_EQ(outcome.supportsUDPAssociate, outcome.egressIP.has_value());
    return outcome;
  }

  SOCKS5Server proxy_;
  STUNResponder stun_;
  const std::ptrdiff_t threads_ = test::runningThreads();
  std::ptrdiff_t descriptors_ = test::openDescriptors();
};

constexpr const char* timedOut = "STUN reply timed out (proxy didn't forward UDP back)";
constexpr const char* malformed = "proxy returned malformed UDP payload";

TEST_F(ProxyProbe, ReportsTheAddressThatTheSTUNServerSaw) {
  for (const Answer kind : {Answer::normal, Answer::ipv6First, Answer::duplicate}) {
    answer(kind);
    EXPECT_EQ(probe().egressIP, "198.51.100.9:40000");
  }
  EXPECT_TRUE(test::eventually([&] { return proxy_.counts().openConnections == 0; }));
}

TEST_F(ProxyProbe, LetsTheFirstDatagramDecide) {
  for (const Answer kind :
       {Answer::garbageFirst, Answer::wrongTransaction, Answer::error, Answer::truncated}) {
    answer(kind);
    const test::Stopwatch time;
    EXPECT_EQ(probe().errorDescription, malformed);
    EXPECT_LT(time.seconds(), 2.0);
  }
  for (const Bytes& raw : {Bytes{}, Bytes(9), Bytes{0, 0, 0, 1, 127, 0, 0, 1, 0, 1}}) {
    SOCKS5Script script;
    script.relay = SOCKS5Script::Relay::garbage;
    script.garbage = {raw};
    proxy_.setScript(script);
    EXPECT_EQ(probe().errorDescription, malformed);
  }
}

TEST_F(ProxyProbe, GivesUpAtItsTimeLimit) {
  answer(Answer::silence);
  const test::Stopwatch time;
  EXPECT_EQ(probe(0.2).errorDescription, timedOut);
  EXPECT_GE(time.seconds(), 0.2);
  EXPECT_LT(time.seconds(), 0.9);
  answer(Answer::normal, 400ms);  // too late, and delivered to nobody
  EXPECT_EQ(probe(0.2).errorDescription, timedOut);
  SOCKS5Script script;
  script.relay = SOCKS5Script::Relay::dropAll;
  proxy_.setScript(script);
  EXPECT_EQ(probe(0.2).errorDescription, timedOut);
}

TEST_F(ProxyProbe, PassesOnWhyThereIsNoAssociation) {
  SOCKS5Script script;
  script.replyCode = 0x07;
  proxy_.setScript(script);
  EXPECT_EQ(probe().errorDescription, "UDP ASSOCIATE not supported by proxy");
  proxy_.closeListener();
  EXPECT_EQ(probe().errorDescription,
            "TCP connect to proxy failed: connect: " + errorText(ECONNREFUSED));
  --descriptors_;  // the listener's
}

TEST_F(ProxyProbe, ReportsWhatTheSystemSaysOfTheRelay) {
  const auto failure = [](const std::string& host, std::uint16_t port) -> std::string {
    try {
      return ProbeRelay::sendSTUN(host, port, loopbackIP, 3478, 2).get();
    } catch (const SOCKS5Error& error) {
      return error.description();
    }
  };
  std::uint16_t closedPort = 0;
  {
    STUNResponder gone;
    closedPort = gone.port();
  }
  EXPECT_EQ(failure("127.0.0.1", closedPort),
            "TCP connect to proxy failed: UDP recv: " + errorText(ECONNREFUSED));
  EXPECT_TRUE(failure(std::string("a\0b", 3), 1)
                  .starts_with("TCP connect to proxy failed: relay failed: "));
}

// Time limit and answer come at about the same time, over and over: one result each, no crash.
TEST_F(ProxyProbe, DeliversOneResultWhenAnswerAndTimeLimitRace) {
  answer(Answer::normal, 50ms);
  for (int i = 0; i < 12; ++i) {
    const auto outcome = probe(0.046 + 0.001 * i);
    if (outcome.egressIP) {
      EXPECT_EQ(outcome.egressIP, "198.51.100.9:40000");
    } else {
      EXPECT_EQ(outcome.errorDescription, timedOut);
    }
  }
}

}  // namespace
}  // namespace zk
