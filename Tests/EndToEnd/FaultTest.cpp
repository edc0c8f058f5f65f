// Faults of the far side. In each the daemon has a client that is well served, and that must be so
// while the fault lasts, as far as an opening does not block the daemon, and afterwards.

#include <functional>

#include <sys/resource.h>

#include "EndToEnd/Rig.h"
#include "Platform/Sockets.h"

namespace zk::test {
namespace {

using Action = SOCKS5Step::Action;

struct Case {
  const char* name;
  SOCKS5Script script;
};

SOCKS5Script with(SOCKS5Step SOCKS5Script::*step, Action action) {
  SOCKS5Script script;
  (script.*step).action = action;
  return script;
}

/// Every step of the handshake; the proxy asks for a login, as more can go wrong then.
SOCKS5Script withLogin(SOCKS5Script script) {
  script.login = {"user", "password"};
  return script;
}

/// One fault of the handshake: the newcomer gets 500, and nothing of the other client is lost.
void expectRefusedAndHarmless(const Case& fault) {
  SCOPED_TRACE(fault.name);
  const SOCKS5Script sound = withLogin({});
  const auto rig = Rig::ready(sound);
  const auto steady = rig->allocated();
  ASSERT_TRUE(echoes(*steady, rig->peer, bytes("before")));
  const std::size_t descriptors = rig->daemon.descriptorCount();
  const std::size_t threads = rig->daemon.threadCount();

  rig->proxy.setScript(withLogin(fault.script));
  const auto newcomer = rig->client();
  std::thread opening([&] { EXPECT_EQ(newcomer->allocate().errorCode(), 500) << fault.name; });
  constexpr std::uint8_t rounds = 50;
  for (std::uint8_t i = 0; i < rounds; ++i) {
    steady->sendIndication({rig->peer.ip(), rig->peer.port()}, Bytes{i});
    std::this_thread::sleep_for(milliseconds(2));
  }
  for (std::uint8_t i = 0; i < rounds; ++i) {
    const auto data = steady->receiveData(longPatience);
    ASSERT_TRUE(data) << int{i};
    EXPECT_EQ(data->payload, Bytes{i});
  }
  opening.join();

  rig->proxy.setScript(sound);
  EXPECT_EQ(rig->daemon.descriptorCount(), descriptors);
  EXPECT_TRUE(becomesTrue([&] { return rig->daemon.threadCount() == threads; }));
  const auto afterwards = newcomer->allocate();
  EXPECT_TRUE(afterwards.success()) << afterwards.errorCode();
  EXPECT_TRUE(echoes(*newcomer, rig->peer, bytes("at last")));
  EXPECT_TRUE(echoes(*steady, rig->peer, bytes("after")));
  EXPECT_TRUE(rig->stops());
}

/// Each on its own daemon and all at once: most of them do nothing but wait.
void expectAll(const std::vector<Case>& faults) {
  std::vector<std::thread> threads;
  for (const Case& fault : faults) {
    threads.emplace_back([&fault] { expectRefusedAndHarmless(fault); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(FaultTest, AProxyThatResetsOrAnswersGarbage) {
  Case wrongVersion{"a greeting of another protocol", {}};
  wrongVersion.script.greetingReply = bytes("HTTP/1.1 400 Bad Request\r\n\r\n");
  Case noMethod{"no acceptable method", {}};
  noMethod.script.greetingReply = Bytes{5, 0xFF};
  Case badLogin{"another version of the login", {}};
  badLogin.script.authReply = Bytes{9, 0};
  Case badReply{"garbage for an association", {}};
  badReply.script.associateReply = Bytes(300, 0xEE);
  Case badType{"an address of unknown type", {}};
  badType.script.announceType = 9;
  badType.script.announceAddress = Bytes{1, 2, 3, 4};
  Case rejected{"no association", {}};
  rejected.script.replyCode = 7;
  expectAll({{"reset at once", with(&SOCKS5Script::onAccept, Action::reset)},
             {"reset for a greeting", with(&SOCKS5Script::onGreeting, Action::reset)},
             {"reset for a login", with(&SOCKS5Script::onAuth, Action::reset)},
             {"reset for an association", with(&SOCKS5Script::onAssociate, Action::reset)},
             wrongVersion,
             noMethod,
             badLogin,
             badReply,
             badType,
             rejected});
}

// A read that meets the end of the stream waits like one that meets silence: 3 seconds at the first
// attempt and 10 at the second.
TEST(FaultTest, AProxyThatHangsOrDies) {
  expectAll(
      {{"silence at once", with(&SOCKS5Script::onAccept, Action::silence)},
       {"half a greeting", with(&SOCKS5Script::onGreeting, Action::half)},
       {"silence for a login", with(&SOCKS5Script::onAuth, Action::silence)},
       {"half an association", with(&SOCKS5Script::onAssociate, Action::half)},
       {"the end at once", with(&SOCKS5Script::onAccept, Action::close)},
       {"the end after the greeting", with(&SOCKS5Script::onGreeting, Action::answerThenClose)},
       {"the end for an association", with(&SOCKS5Script::onAssociate, Action::close)}});
}

TEST(FaultTest, AProxyThatIsSlowIsGoodEnough) {
  SOCKS5Script script = withLogin({});
  script.onGreeting = {.action = Action::dribble, .pace = milliseconds(100)};
  script.onAuth = {.delay = milliseconds(500)};
  script.onAssociate = {.action = Action::dribble, .pace = milliseconds(50)};
  const auto rig = Rig::ready(script);
  const auto client = rig->allocated();
  EXPECT_TRUE(echoes(*client, rig->peer, bytes("hello")));
}

TEST(FaultTest, AProxyThatIsGone) {
  const auto rig = Rig::ready();
  const auto steady = rig->allocated();
  rig->proxy.closeListener();
  EXPECT_EQ(rig->client()->allocate().errorCode(), 500);
  EXPECT_TRUE(echoes(*steady, rig->peer, bytes("what is open lives on")));
  rig->proxy.stop();
  EXPECT_FALSE(echoes(*steady, rig->peer, bytes("lost"), {}, aMoment));
  EXPECT_TRUE(steady->refresh(600).success());
  EXPECT_TRUE(steady->refresh(0).success());
  EXPECT_TRUE(rig->stops());
}

TEST(FaultTest, AProxyThatEndsLiveAssociations) {
  for (const auto end :
       {&SOCKS5Server::closeControlConnections, &SOCKS5Server::resetControlConnections,
        &SOCKS5Server::closeAssociations}) {
    const auto rig = Rig::ready();
    const auto victim = rig->allocated();
    ASSERT_TRUE(echoes(*victim, rig->peer, bytes("before")));
    const std::size_t descriptors = rig->daemon.descriptorCount();
    (rig->proxy.*end)();
    const auto other = rig->allocated();
    for (int i = 0; i < 20; ++i) {
      victim->sendIndication({rig->peer.ip(), rig->peer.port()}, bytes("into the void"));
      ASSERT_TRUE(echoes(*other, rig->peer, bytes("served")));
    }
    EXPECT_FALSE(victim->receiveData(aMoment));
    // The victim can begin anew.
    EXPECT_TRUE(victim->refresh(0).success());
    EXPECT_TRUE(victim->allocate().success());
    EXPECT_TRUE(echoes(*victim, rig->peer, bytes("again")));
    EXPECT_EQ(rig->daemon.descriptorCount(), descriptors + 2);
    const auto cpuBefore = rig->daemon.cpuTime();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_LT(rig->daemon.cpuTime() - cpuBefore, milliseconds(100)) << "something spins";
    EXPECT_TRUE(rig->stops());
  }
}

TEST(FaultTest, ARelayThatSendsNonsense) {
  const PrivateTmp tmp(512 * 1024);  // a million lines are written about it
  const auto rig = Rig::ready();
  const auto client = rig->allocated();
  const auto other = rig->allocated();
  ASSERT_TRUE(client->bindChannel(0x4000, {rig->peer.ip(), rig->peer.port()}).success());
  ASSERT_TRUE(echoes(*client, rig->peer, bytes("before"), 0x4000));
  ASSERT_TRUE(echoes(*other, rig->peer, bytes("before")));
  const sockaddr_in relaySocket = *rig->proxy.clientAddress(0);

  const Bytes headerOnly{0, 0, 0, 1, 192, 0, 2, 1, 0, 7};
  Bytes largest(65'507, 0x5A);
  std::copy(headerOnly.begin(), headerOnly.end(), largest.begin());
  Bytes longName{0, 0, 0, 3, 255, 'x'};
  Bytes ipv6(10 + 12 + 1);
  ipv6[3] = 4;
  const std::vector<Bytes> malformed{{},
                                     {0},
                                     {0, 0, 0, 1, 192, 0, 2, 1, 0},
                                     {0, 0, 0, 9, 1, 2, 3, 4, 5, 6, 7, 8},
                                     longName,
                                     {0, 0, 0, 4, 1, 2, 3, 4, 5, 6, 7},
                                     Bytes(1400, 0xFF)};
  const std::vector<Bytes> foreign{{0, 0, 0, 3, 4, 'h', 'o', 's', 't', 0, 9, 'x'}, ipv6, largest};

  rig->proxy.injectToClient(0, headerOnly);
  const auto empty = client->receiveData(patience);
  ASSERT_TRUE(empty && empty->peer);
  EXPECT_EQ(empty->peer->ip, "192.0.2.1");
  EXPECT_TRUE(empty->payload.empty());
  for (const Bytes& frame : foreign) {
    rig->proxy.injectToClient(0, frame);
    EXPECT_FALSE(client->receiveData(aMoment));
  }

  // In batches that fit a receive buffer: what comes back through the same socket tells that the
  // batch has been dealt with.
  constexpr int batch = 50;
  const int frames = sanitized ? 20'000 : 1'000'000;
  const std::size_t memory = rig->daemon.residentKilobytes();
  const int blaster = openUDPSocket();
  for (int sent = 0; sent < frames; sent += batch) {
    for (int i = 0; i < batch; ++i) {
      const auto which = static_cast<std::size_t>(sent + i) % malformed.size();
      sendDatagram(blaster, malformed[which], relaySocket);
    }
    ASSERT_TRUE(echoes(*client, rig->peer, bytes("between"), 0x4000)) << sent;
  }
  closeSocket(blaster);
  if (!sanitized) {  // which keep freed memory for a while
    EXPECT_LT(rig->daemon.residentKilobytes(), memory + 4096);
  }
  EXPECT_TRUE(echoes(*other, rig->peer, bytes("after")));
  if (tmp.mounted()) {
    std::ifstream log("/tmp/zkturnd-dp.log");
    int dropped = 0;
    for (std::string line; std::getline(log, line);) {
      dropped += line.find("(DROPPED)") != std::string::npos;
    }
    EXPECT_EQ(dropped, frames);
  }
  EXPECT_TRUE(rig->stops());
}

TEST(FaultTest, STUNAnswersThatAreNoUse) {
  using Answer = STUNScript::Answer;
  const auto outcome = [](STUNScript script) {
    script.mappedIP = egressIP;
    return [script] {
      const auto rig = Rig::ready({}, script);
      std::this_thread::sleep_for(aMoment);  // it is ready a little before it has settled
      const std::size_t descriptors = rig->daemon.descriptorCount();
      const auto client = rig->client();
      const auto answer = client->allocate();
      client->receiveData(aMoment);  // the second of two answers goes where all datagrams go
      const bool usable = answer.success() && answer.relayedAddress()->ip == egressIP &&
                          echoes(*client, rig->peer, bytes("hello"));
      EXPECT_TRUE(
          becomesTrue([&] { return rig->proxy.counts().openAssociations == (usable ? 1U : 0U); }));
      EXPECT_TRUE(usable || answer.errorCode() == 500) << "fails closed or not at all";
      EXPECT_TRUE(usable || rig->daemon.descriptorCount() == descriptors);
      return usable;
    };
  };
  struct {
    STUNScript script;
    bool good;
  } const cases[] = {
      {{.answer = Answer::silence}, false},     {{.answer = Answer::wrongTransaction}, false},
      {{.answer = Answer::error}, false},       {{.answer = Answer::truncated}, false},
      {{.delay = milliseconds(2500)}, false},   {{.answer = Answer::duplicate}, true},
      {{.answer = Answer::garbageFirst}, true}, {{.delay = milliseconds(700)}, true},
  };
  std::vector<std::thread> threads;
  for (const auto& [script, good] : cases) {
    threads.emplace_back([run = outcome(script), good = good, answer = script.answer] {
      EXPECT_EQ(run(), good) << static_cast<int>(answer);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// The answer of a target that was given up comes while the next one is asked, with another address.
TEST(FaultTest, ALateSTUNAnswerIsNotTakenForTheNextOne) {
  STUNResponder late({.mappedIP = "198.51.100.66", .delay = milliseconds(1600)});
  Rig rig({}, {.mappedIP = egressIP, .delay = milliseconds(400)});
  DaemonProcess daemon(daemonBinary(), {{"ZK_STUN_IPS", late.target() + "," + rig.stun.target()}});
  daemon.write(rig.config.line());
  TURNClient client(daemon.waitReady(patience).value_or(0));
  const auto answer = client.allocate();
  ASSERT_TRUE(answer.success());
  EXPECT_EQ(answer.relayedAddress()->ip, egressIP);
  EXPECT_TRUE(echoes(client, rig.peer, bytes("hello")));
}

TEST(FaultTest, RunningOutOfDescriptorsInTheMiddleOfAnOpening) {
  if (sanitized) {
    GTEST_SKIP() << "sanitizers need descriptors for their own checks";
  }
  const auto rig = Rig::ready();
  const auto steady = rig->allocated();
  ASSERT_TRUE(echoes(*steady, rig->peer, bytes("before")));
  const std::size_t descriptors = rig->daemon.descriptorCount();
  rlimit enough{};
  ASSERT_EQ(prlimit(rig->daemon.pid(), RLIMIT_NOFILE, nullptr, &enough), 0);
  const auto newcomer = rig->client();
  // Its numbers are without a gap: so many more can be opened.
  for (const std::size_t more : {0U, 1U}) {
    const rlimit few{descriptors + more, enough.rlim_max};
    ASSERT_EQ(prlimit(rig->daemon.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    ASSERT_EQ(newcomer->allocate().errorCode(), 500) << more;
    EXPECT_TRUE(echoes(*steady, rig->peer, bytes("meanwhile")));
    EXPECT_EQ(rig->daemon.descriptorCount(), descriptors) << more;
  }
  ASSERT_EQ(prlimit(rig->daemon.pid(), RLIMIT_NOFILE, &enough, nullptr), 0);
  EXPECT_EQ(rig->proxy.counts().connections, 3U) << "the middle was reached, in both attempts";
  EXPECT_TRUE(newcomer->allocate().success());
  EXPECT_TRUE(echoes(*newcomer, rig->peer, bytes("after")));
  EXPECT_TRUE(rig->stops());
}

}  // namespace
}  // namespace zk::test
