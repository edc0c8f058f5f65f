// Faults of the far side. In each the daemon has a client that is well served, while the fault
// lasts and afterwards: nobody waits for anybody.

#include <atomic>

#include "EndToEnd/Rig.h"

namespace zk::test {
namespace {

using Action = SOCKS5Step::Action;
using Clock = std::chrono::steady_clock;

struct Fault {
  const char* name;
  SOCKS5Script script;
};

Fault at(const char* name, SOCKS5Step SOCKS5Script::*step, Action action) {
  Fault fault{name, {}};
  (fault.script.*step).action = action;
  return fault;
}

/// The proxy asks for a login, as more can go wrong then.
SOCKS5Script withLogin(SOCKS5Script script) {
  script.login = {"user", "password"};
  return script;
}

/// Runs `body` for each case, all at once, as most of them do nothing but wait.
template <typename Cases, typename Body>
void forAll(const Cases& cases, const Body& body) {
  std::vector<std::thread> threads;
  for (const auto& each : cases) {
    threads.emplace_back([&each, &body] { body(each); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

/// A fault of the handshake: the newcomer gets 500, the other client notices nothing, and nothing
/// stays behind.
void expectRefusedAndHarmless(const Fault& fault) {
  SCOPED_TRACE(fault.name);
  const auto rig = Rig::ready(withLogin({}));
  const std::size_t threads = rig->daemon.threadCount();
  const auto steady = rig->allocated();
  ASSERT_TRUE(echoes(*steady, rig->peer, bytes("before")));
  const std::size_t descriptors = rig->daemon.descriptorCount();

  rig->proxy.setScript(withLogin(fault.script));
  const auto newcomer = rig->client();
  std::atomic<bool> isRefused = false;
  std::thread opening([&] {
    EXPECT_EQ(newcomer->allocate().errorCode(), 500) << fault.name;
    isRefused = true;
  });
  do {
    ASSERT_TRUE(echoes(*steady, rig->peer, bytes("meanwhile"), {}, milliseconds(1000)));
    std::this_thread::sleep_for(milliseconds(10));
  } while (!isRefused);
  opening.join();
  EXPECT_TRUE(eventually([&] {
    return rig->daemon.descriptorCount() == descriptors && rig->daemon.threadCount() == threads;
  }));

  rig->proxy.setScript(withLogin({}));
  const auto afterwards = newcomer->allocate();
  EXPECT_TRUE(afterwards.success()) << afterwards.errorCode();
  EXPECT_TRUE(echoes(*newcomer, rig->peer, bytes("at last")));
  EXPECT_TRUE(echoes(*steady, rig->peer, bytes("after")));
  EXPECT_TRUE(rig->stops());
}

// A read that meets the end of the stream waits like one that meets silence: 3 seconds at the first
// attempt and 10 at the second.
TEST(FaultTest, AProxyThatHangsOrDies) {
  const Fault faults[] = {
      at("silence at once", &SOCKS5Script::onAccept, Action::silence),
      at("half a greeting", &SOCKS5Script::onGreeting, Action::half),
      at("silence for a login", &SOCKS5Script::onAuth, Action::silence),
      at("half an association", &SOCKS5Script::onAssociate, Action::half),
      at("the end at once", &SOCKS5Script::onAccept, Action::close),
      at("the end after the greeting", &SOCKS5Script::onGreeting, Action::answerThenClose),
      at("the end for an association", &SOCKS5Script::onAssociate, Action::close)};
  forAll(faults, expectRefusedAndHarmless);
}

// The client of an association that has ended is told with 437 once nothing has come for 5 seconds,
// and begins anew. A relay that has died without a word on the control connection stays.
TEST(FaultTest, AProxyThatEndsLiveAssociations) {
  struct {
    void (SOCKS5Server::*end)();
    bool isTold;
  } const cases[] = {{&SOCKS5Server::closeControlConnections, true},
                     {&SOCKS5Server::resetControlConnections, true},
                     {&SOCKS5Server::closeAssociations, false}};
  forAll(cases, [](const auto& each) {
    const auto rig = Rig::ready();
    const std::size_t descriptors = rig->daemon.descriptorCount();
    const auto victim = rig->allocated();
    ASSERT_TRUE(echoes(*victim, rig->peer, bytes("before")));
    (rig->proxy.*each.end)();
    const auto ended = Clock::now();
    const auto other = rig->allocated();
    const auto cpuBefore = rig->daemon.cpuTime();
    int error = 0;
    while (error == 0 && Clock::now() - ended < std::chrono::seconds(7)) {
      victim->sendIndication(rig->peer.endpoint(), bytes("into the void"));
      ASSERT_TRUE(echoes(*other, rig->peer, bytes("served")));
      EXPECT_FALSE(victim->receiveData(aMoment));
      error = victim->refresh(600).errorCode();
    }
    EXPECT_LT(rig->daemon.cpuTime() - cpuBefore, milliseconds(500)) << "something spins";
    EXPECT_EQ(error, each.isTold ? 437 : 0);
    EXPECT_GE(Clock::now() - ended, std::chrono::seconds(5));
    if (!each.isTold) {
      EXPECT_TRUE(victim->refresh(0).success());
    }
    EXPECT_EQ(rig->daemon.descriptorCount(), descriptors + 2);
    EXPECT_TRUE(victim->allocate().success());
    EXPECT_TRUE(echoes(*victim, rig->peer, bytes("again")));
    EXPECT_TRUE(rig->stops());
  });
}

using FaultLogTest = PrivateTmpTest;

TEST_F(FaultLogTest, ARelayThatSendsNonsense) {
  const auto rig = Rig::ready();
  const auto client = rig->allocated();
  const auto other = rig->allocated();
  ASSERT_TRUE(client->bindChannel(0x4000, rig->peer.endpoint()).success());
  const Bytes headerOnly{0, 0, 0, 1, 192, 0, 2, 1, 0, 7};
  Bytes largest(65'507, 0x5A);
  std::copy(headerOnly.begin(), headerOnly.end(), largest.begin());
  Bytes ipv6(10 + 12 + 1);
  ipv6[3] = 4;
  const Bytes malformed[] = {{}, {0, 0, 0, 3, 255, 'x'}, Bytes(1400, 0xFF)};
  // A host name, an address of the wrong family, and more than a client can be sent. Then nothing.
  for (const Bytes& frame :
       {Bytes{0, 0, 0, 3, 4, 'h', 'o', 's', 't', 0, 9, 'x'}, ipv6, largest, headerOnly}) {
    rig->proxy.injectToClient(0, frame);
  }
  const auto empty = client->receiveData(patience);
  ASSERT_TRUE(empty && empty->peer);
  EXPECT_TRUE(empty->peer->ip() == "192.0.2.1" && empty->payload.empty());

  // In batches that fit a receive buffer: what comes back through the same socket tells that the
  // batch has been dealt with. A stranger sends what would be good if the proxy had sent it.
  const std::size_t rounds = sanitized ? 100 : 1000;
  const std::size_t memory = rig->daemon.residentKilobytes();
  const auto relaySocket = rig->proxy.clientAddress(0);
  ASSERT_TRUE(relaySocket);
  const KitSocket stranger = KitSocket::boundUDP();
  for (std::size_t round = 0; round < rounds; ++round) {
    for (const Bytes& frame : malformed) {
      rig->proxy.injectToClient(0, frame);
      stranger.send(headerOnly, *relaySocket);
    }
    ASSERT_TRUE(echoes(*client, rig->peer, bytes("between"), 0x4000)) << round;
  }
  if (!sanitized) {  // which keep freed memory for a while
    EXPECT_LT(rig->daemon.residentKilobytes(), memory + 4096);
  }
  EXPECT_TRUE(echoes(*other, rig->peer, bytes("after")));
  EXPECT_TRUE(rig->stops());
  const std::string log = contentOf("/tmp/zkturnd-dp.log");
  EXPECT_EQ(count(log, "unwrap FAILED"), rounds * std::size(malformed));
  EXPECT_EQ(count(log, "from stranger"), rounds * std::size(malformed));
}

}  // namespace
}  // namespace zk::test
