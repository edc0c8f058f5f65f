#include <future>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Support.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorTURN/EgressProbe.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;
using Answer = STUNScript::Answer;

// An association of the kit's proxy and the socket to probe with.
class Association {
 public:
  Association() {
    control_.connect();
    relay_ = socketAddress("127.0.0.1", control_.performHandshakeAndUDPAssociate().relayPort);
    EXPECT_TRUE(bindSocket(socket_, socketAddress("127.0.0.1", 0)));
  }
  ~Association() { closeSocket(socket_); }
  Association(const Association&) = delete;
  Association& operator=(const Association&) = delete;

  std::string probe(const std::string& gateway, int seconds = 8) const {
    return probeEgressIP(socket_, relay_, gateway, seconds);
  }

  SOCKS5Server proxy;

 private:
  SOCKS5Control control_{"127.0.0.1", proxy.port(), {}, {}, 5};
  sockaddr_in relay_{};
  const int socket_ = openUDPSocket();
};

STUNScript saying(const char* ip, Answer answer = Answer::normal,
                  std::chrono::milliseconds delay = 0ms) {
  STUNScript script;
  script.mappedIP = ip;
  script.mappedPort = 40000;
  script.answer = answer;
  script.delay = delay;
  return script;
}

// A name that no other probe uses, as cache and log are shared by all.
std::string freshGateway() {
  static int count = 0;
  return fmt::format("gateway-{}-{}", getpid(), ++count);
}

// The lines of this test's probes, from the entering of `gateway` on.
class EgressLog {
 public:
  std::string since(const std::string& gateway) const {
    const std::string text = tail_.text();
    const auto at = text.find("ENTER probe gateway=" + gateway + " ");
    return at == std::string::npos ? "" : text.substr(text.rfind('\n', at) + 1);
  }

 private:
  const test::LogTail tail_{"/tmp/zk-egress.log"};
};

TEST(EgressProbe, TakesTheAddressOfTheFirstAnswerAndLogsItsSteps) {
  Association association;
  STUNResponder stun(saying("198.51.100.9"));
  STUNResponder second(saying("198.51.100.10"));
  const test::Environment targets("ZK_STUN_IPS", stun.target() + ',' + second.target());
  const EgressLog log;
  const std::string gateway = freshGateway();
  EXPECT_EQ(association.probe(gateway), "198.51.100.9");
  EXPECT_EQ(stun.requests(), 1U);
  EXPECT_EQ(second.requests(), 0U);

  const std::string lines = log.since(gateway);
  for (const std::string& line :
       {"ENTER probe gateway=" + gateway + " timeout=8s",
        std::string("using 2 STUN IPs from ZK_STUN_IPS env"),
        "targets: " + stun.target() + ',' + second.target(),
        "→ STUN to " + stun.target() + " via relay sendRC=30",
        std::string("✓ egress discovered = 198.51.100.9 (via 127.0.0.1)")}) {
    EXPECT_NE(lines.find(" [egress-probe] " + line + '\n'), std::string::npos) << line;
  }
  EXPECT_TRUE(test::beginsLike(lines, "####-##-## ##:##:## +0000 [egress-probe] ENTER"));
}

// One window of 1.5 seconds for all of them: what is no answer of this target is passed over.
TEST(EgressProbe, PassesOverWhateverIsNotTheAnswer) {
  Association association;
  STUNResponder stun(saying("198.51.100.9", Answer::garbageFirst, 300ms));
  const test::Environment targets("ZK_STUN_IPS", stun.target());
  auto egress = std::async(std::launch::async, [&] { return association.probe(freshGateway()); });
  ASSERT_TRUE(test::eventually([&] { return stun.requests() == 1; }));
  const auto header = test::hex("00000001 7F000001 0D96");
  for (const char* const payload :
       {"", "00", "0101000C2112A442",
        "0101000C2112A442AAAAAAAAAAAAAAAAAAAAAAAA002000080001A147E112A643",
        "0111000C2112A442AAAAAAAAAAAAAAAAAAAAAAAA002000080001A147E112A643"}) {
    Bytes frame = header;
    const Bytes octets = test::hex(payload);
    frame.insert(frame.end(), octets.begin(), octets.end());
    association.proxy.injectToClients(frame);
  }
  association.proxy.injectToClients(Bytes(9));  // not even a frame
  EXPECT_EQ(egress.get(), "198.51.100.9");
}

TEST(EgressProbe, GivesEachTargetItsWindowAndIgnoresTheLateAnswerOfAnother) {
  Association association;
  STUNResponder late(saying("198.51.100.1", Answer::normal, 1700ms));
  STUNResponder prompt(saying("198.51.100.2", Answer::normal, 500ms));
  const test::Environment targets("ZK_STUN_IPS", late.target() + ',' + prompt.target());
  const EgressLog log;
  const std::string gateway = freshGateway();
  const test::Stopwatch time;
  EXPECT_EQ(association.probe(gateway), "198.51.100.2");
  EXPECT_GE(time.seconds(), 1.9);  // a window of 1.5 seconds and the delay
  EXPECT_LT(time.seconds(), 2.6);
  EXPECT_NE(log.since(gateway).find("✗ no STUN response from 127.0.0.1 within window\n"),
            std::string::npos);
}

// Each kind of bad answer on an association of its own, all at once.
TEST(EgressProbe, FailsClosedOnBadAnswersWithinItsTime) {
  struct Case {
    explicit Case(Answer how, SOCKS5Script::Relay through = SOCKS5Script::Relay::forward)
        : answer(how), relay(through) {}
    const Answer answer;
    const SOCKS5Script::Relay relay;
    Association association;
    STUNResponder stun;
  };
  std::vector<std::unique_ptr<Case>> cases;
  std::string list;
  for (const Answer answer :
       {Answer::silence, Answer::wrongTransaction, Answer::error, Answer::truncated}) {
    cases.push_back(std::make_unique<Case>(answer, SOCKS5Script::Relay::forward));
  }
  cases.push_back(std::make_unique<Case>(Answer::normal, SOCKS5Script::Relay::dropAll));
  STUNResponder unused;
  const EgressLog log;
  const std::string gateway = freshGateway();
  const test::Stopwatch time;
  // One target list for all, so that the deadline of a second comes before their end.
  for (const auto& c : cases) {
    c->stun.setScript(saying("198.51.100.9", c->answer));
    list += (list.empty() ? "" : ",") + c->stun.target();
    SOCKS5Script script;
    script.relay = c->relay;
    c->association.proxy.setScript(script);
  }
  cases.back()->stun.setScript(saying("198.51.100.9", Answer::silence));
  const test::Environment targets("ZK_STUN_IPS", list);
  std::vector<std::future<std::string>> results;
  for (const auto& c : cases) {
    results.push_back(
        std::async(std::launch::async, [&] { return c->association.probe(gateway, 1); }));
  }
  for (auto& result : results) {
    EXPECT_EQ(result.get(), "");
  }
  EXPECT_GE(time.seconds(), 0.9);
  EXPECT_LT(time.seconds(), 1.7);
  EXPECT_NE(log.since(gateway).find("all targets failed → fail-closed (no gateway fallback)\n"),
            std::string::npos);
}

TEST(EgressProbe, FallsBackToTheLastAddressOfTheSameGatewayOnly) {
  Association association;
  STUNResponder stun(saying("198.51.100.9"));
  const test::Environment targets("ZK_STUN_IPS", stun.target());
  const std::string known = freshGateway();
  const std::string unknown = freshGateway();
  EXPECT_EQ(association.probe(known), "198.51.100.9");
  stun.setScript(saying("198.51.100.8"));
  EXPECT_EQ(association.probe(known), "198.51.100.8");  // the newer one counts
  stun.setScript(saying("", Answer::silence));
  const EgressLog log;
  EXPECT_EQ(association.probe(known, 1), "198.51.100.8");
  EXPECT_NE(log.since(known).find("all targets failed → last-known-good egress 198.51.100.8\n"),
            std::string::npos);
  EXPECT_EQ(association.probe(unknown, 1), "");
  EXPECT_EQ(association.probe(known, 0), "198.51.100.8");  // no time even to ask
  EXPECT_EQ(stun.requests(), 4U);
}

// With a socket that cannot send, so that nothing leaves the machine whatever the list says.
TEST(EgressProbe, ReadsItsTargetsLeniently) {
  STUNResponder stun;
  const std::string last = stun.target();  // always there: the public servers are never asked
  const std::pair<const char*, const char*> cases[] = {
      {",203.0.113.7:3478,,", "203.0.113.7:3478,"},
      {"", ""},
      {"203.0.113.7", ""},
      {"203.0.113.7:3478:1", ""},
      {"203.0.113.7:70000", ""},
      {"203.0.113.7:-1", ""},
      {"203.0.113.7:", ""},
      {":3478", ""},
      {"203.0.113.7: 3478", ""},
      {"203.0.113.7:34x", ""},
      {"203.0.113.7::3478", "203.0.113.7:3478,"},
      {"203.0.113.7:0,203.0.113.8:65535", "203.0.113.7:0,203.0.113.8:65535,"},
      {" 203.0.113.7:3478", " 203.0.113.7:3478,"},
      {"stun.invalid:3478", "stun.invalid:3478,"}};  // used as it stands, without a look-up
  for (const auto& [list, read] : cases) {
    const test::Environment targets("ZK_STUN_IPS", list + ("," + last));
    const EgressLog log;
    const std::string gateway = freshGateway();
    const test::Stopwatch time;
    EXPECT_EQ(probeEgressIP(-1, sockaddr_in{}, gateway, 8), "");
    EXPECT_LT(time.seconds(), 1.0);  // a target that cannot be asked is not waited for
    const std::string lines = log.since(gateway);
    EXPECT_NE(lines.find("targets: " + (read + last) + '\n'), std::string::npos) << list;
    EXPECT_NE(lines.find("→ STUN to " + last + " via relay sendRC=-1\n"), std::string::npos);
  }
}

}  // namespace
}  // namespace zk
