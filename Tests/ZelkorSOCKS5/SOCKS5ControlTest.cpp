#include <csignal>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Loopback/KitSocket.h"
#include "Loopback/SOCKS5Server.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Support.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::SOCKS5Step;
using test::hex;
using Action = SOCKS5Step::Action;
using Text = std::optional<std::string>;

constexpr double shortLimit = 0.2;
constexpr double longLimit = 5;

const char* const greeting = "050100";
const char* const greetingWithLogin = "05020002";
const char* const associate = "05030001000000000000";

// What came of one whole conversation with a proxy.
struct Outcome {
  std::string error{};  // empty when an association was made
  std::string relayHost{};
  int relayPort = 0;
  double seconds = 0;
  Bytes sent{};  // to the proxy
};

Outcome converse(SOCKS5Server& proxy, double limit = longLimit, const Text& user = {},
                 const Text& password = {}) {
  signal(SIGPIPE, SIG_DFL);  // one that is raised shall end the test
  Outcome outcome;
  SOCKS5Control control("127.0.0.1", proxy.port(), user, password, limit);
  const test::Stopwatch time;
  try {
    control.connect();
    const auto relay = control.performHandshakeAndUDPAssociate();
    outcome.relayHost = relay.relayHost;
    outcome.relayPort = relay.relayPort;
  } catch (const SOCKS5Error& error) {
    outcome.error = error.description();
  }
  outcome.seconds = time.seconds();
  control.close();
  test::eventually([&] { return proxy.counts().openConnections == 0; });
  outcome.sent = proxy.controlBytes(0);
  return outcome;
}

Outcome converse(const SOCKS5Script& script, double limit = longLimit, const Text& user = {},
                 const Text& password = {}) {
  SOCKS5Server proxy(script);
  return converse(proxy, limit, user, password);
}

std::string failureOf(const std::function<void()>& work) {
  try {
    work();
  } catch (const SOCKS5Error& error) {
    return error.description();
  }
  return "";
}

TEST(SOCKS5Control, OffersALoginOnlyWithBothNameAndPassword) {
  const struct {
    Text user;
    Text password;
    const char* offer;
  } cases[] = {{std::nullopt, std::nullopt, greeting},
               {"alice", std::nullopt, greeting},
               {std::nullopt, "secret", greeting},
               {"", "", greetingWithLogin},
               {"alice", "secret", greetingWithLogin}};
  for (const auto& c : cases) {  // a proxy that wants no login is taken at its word
    const Outcome outcome = converse(SOCKS5Script{}, longLimit, c.user, c.password);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.sent, hex(std::string(c.offer) + associate));
  }
}

TEST(SOCKS5Control, LogsInWhenTheProxyAsksForIt) {
  SOCKS5Script script;
  script.login = {"al\u00EFce", "secret"};
  Outcome outcome = converse(script, longLimit, "al\u00EFce", "secret");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.sent, hex(std::string(greetingWithLogin) + "0106616CC3AF6365" +
                              "06736563726574" + associate));
  EXPECT_TRUE(
      converse(script, longLimit, "alice", "wrong").error.starts_with("auth failed: status 0x"));

  script.login = {"", ""};
  outcome = converse(script, longLimit, "", "");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.sent, hex(std::string(greetingWithLogin) + "010000" + associate));

  const std::string longest(255, 'x');
  script.login = {longest, longest};
  EXPECT_EQ(converse(script, longLimit, longest, longest).error, "");
  for (const bool isName : {true, false}) {
    outcome = isName ? converse(script, longLimit, longest + "x", longest)
                     : converse(script, longLimit, longest, longest + "x");
    EXPECT_EQ(outcome.error,
              fmt::format("auth failed: {} is 256 octets long, at most 255 can be sent",
                          isName ? "user name" : "password"));
    EXPECT_EQ(outcome.sent.size(), 0U);
  }
}

TEST(SOCKS5Control, NamesWhatIsWrongWithAnAnswer) {
  const auto greeted = [](const char* reply) {
    SOCKS5Script script;
    script.greetingReply = hex(reply);
    return script;
  };
  const auto authenticated = [](const char* reply) {
    SOCKS5Script script;
    script.login = {"alice", "secret"};
    script.authReply = hex(reply);
    return script;
  };
  const auto associated = [](const char* reply) {
    SOCKS5Script script;
    script.associateReply = hex(reply);
    return script;
  };
  const auto rejected = [](std::uint8_t code) {
    SOCKS5Script script;
    script.replyCode = code;
    return script;
  };
  const struct {
    SOCKS5Script script;
    bool withLogin;
    const char* error;
  } cases[] = {
      {greeted("0400"), false, "SOCKS5 protocol error: bad ver 4"},
      {greeted("FF02"), true, "SOCKS5 protocol error: bad ver 255"},
      {greeted("0502"), false, "auth failed: server wants auth but none provided"},
      {greeted("05FF"), true, "auth failed: server rejected all offered methods"},
      {greeted("0501"), true, "auth failed: server picked method 0x1"},
      {greeted("0580"), false, "auth failed: server picked method 0x80"},
      {authenticated("0500"), true, "SOCKS5 protocol error: auth ver 5"},
      {authenticated("0101"), true, "auth failed: status 0x1"},
      {authenticated("01FF"), true, "auth failed: status 0xff"},
      {associated("04000001 00000000 0000"), false, "SOCKS5 protocol error: reply ver 4"},
      {associated("05000002 00000000 0000"), false, "SOCKS5 protocol error: unsupported ATYP 2"},
      {rejected(0x07), false, "UDP ASSOCIATE not supported by proxy"},
      {rejected(0x01), false, "general SOCKS server failure"},
      {rejected(0x0A), false, "reply code 0xa"}};
  for (const auto& c : cases) {
    const Outcome outcome =
        c.withLogin ? converse(c.script, longLimit, "alice", "secret") : converse(c.script);
    EXPECT_EQ(outcome.error, c.error);
    EXPECT_LT(outcome.seconds, 2) << c.error;
  }
}

TEST(SOCKS5Control, HandsOnTheRelayAddressOrItsOwnHostInPlaceOfNone) {
  const std::pair<const char*, const char*> cases[] = {
      {"05000001 C0000201 9C40", "192.0.2.1"},
      {"05000001 00000000 9C40", "127.0.0.1"},
      {"0500FF01 0A000001 9C40", "10.0.0.1"},
      {"05000003 00 9C40", "127.0.0.1"},
      {"05000003 05 72656C6179 9C40", "relay"},
      {"05000003 02 C3FF 9C40", "127.0.0.1"},  // not UTF-8
      {"05000003 07 302E302E302E30 9C40", "127.0.0.1"},
      {"05000004 20010DB8000000000000000000000001 9C40",
       "20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:01"},
      {"05000004 00000000000000000000000000000000 9C40",
       "00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00"}};
  for (const auto& [reply, host] : cases) {
    SOCKS5Script script;
    script.associateReply = hex(reply);
    const Outcome outcome = converse(script);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.relayHost, host) << reply;
    EXPECT_EQ(outcome.relayPort, 40000);
  }
}

TEST(SOCKS5Control, EndsEveryWaitAtItsDeadline) {
  constexpr double tolerance = 3;  // on a busy machine; what a wait without end would not keep
  const SOCKS5Step tooSlow{Action::dribble, 0ms, 80ms};
  const SOCKS5Step late{Action::answer, 600ms};
  for (const SOCKS5Step& step :
       {SOCKS5Step{Action::silence}, SOCKS5Step{Action::half}, SOCKS5Step{Action::close}, late}) {
    for (SOCKS5Step SOCKS5Script::*at :
         {&SOCKS5Script::onGreeting, &SOCKS5Script::onAuth, &SOCKS5Script::onAssociate}) {
      SOCKS5Script script;
      script.login = {"alice", "secret"};
      script.*at = step;
      const Outcome outcome = converse(script, shortLimit, "alice", "secret");
      EXPECT_EQ(outcome.error, "TCP connect to proxy failed: read timeout");
      EXPECT_GE(outcome.seconds, shortLimit);
      EXPECT_LT(outcome.seconds, shortLimit + tolerance);
    }
  }
  SOCKS5Script script;  // octets that keep coming do not extend the limit of a read
  script.onAssociate = tooSlow;
  const Outcome outcome = converse(script, shortLimit);
  EXPECT_EQ(outcome.error, "TCP connect to proxy failed: read timeout");
  EXPECT_LT(outcome.seconds, shortLimit + tolerance);
}

TEST(SOCKS5Control, PutsTogetherAnswersThatComeInPieces) {
  SOCKS5Script script;
  script.login = {"alice", "secret"};
  script.onGreeting = script.onAuth = script.onAssociate = {Action::dribble, 0ms, 5ms};
  EXPECT_EQ(converse(script, longLimit, "alice", "secret").error, "");
}

TEST(SOCKS5Control, FailsAtOnceAndWithoutASignalWhenTheProxyResets) {
  for (SOCKS5Step SOCKS5Script::*at : {&SOCKS5Script::onGreeting, &SOCKS5Script::onAssociate}) {
    SOCKS5Script script;
    script.*at = {Action::reset};
    const Outcome outcome = converse(script);
    EXPECT_EQ(outcome.error, "TCP connect to proxy failed: read -1");
    EXPECT_LT(outcome.seconds, 2);
  }
  SOCKS5Server proxy;
  SOCKS5Control control("127.0.0.1", proxy.port(), {}, {}, longLimit);
  control.connect();
  ASSERT_TRUE(test::eventually([&] { return proxy.counts().openConnections == 1; }));
  proxy.resetControlConnections();
  std::this_thread::sleep_for(30ms);
  const auto handshake = [&] { control.performHandshakeAndUDPAssociate(); };
  EXPECT_EQ(failureOf(handshake), "TCP connect to proxy failed: write -1");
  EXPECT_EQ(failureOf(handshake), "TCP connect to proxy failed: write -1");
}

TEST(SOCKS5Control, TellsWhyItCannotConnect) {
  const auto connecting = [](const std::string& host, std::int64_t port) {
    return failureOf([&] { SOCKS5Control(host, port, {}, {}, shortLimit).connect(); });
  };
  const auto descriptors = test::openDescriptors();
  std::uint16_t refused = 0;
  {
    SOCKS5Server proxy;
    refused = proxy.port();
  }
  EXPECT_EQ(connecting("127.0.0.1", refused),
            "TCP connect to proxy failed: connect: " + errorText(ECONNREFUSED));
  // None of these is looked up: a name with a zero octet, and ports that no service has.
  for (const auto& [host, port] :
       {std::pair{std::string("a\0b", 3), 1080L}, {"127.0.0.1", -1L}, {"127.0.0.1", 1L << 40}}) {
    const std::string failure = connecting(host, port);
    EXPECT_TRUE(failure.starts_with("TCP connect to proxy failed: ")) << failure << ' ' << port;
  }
  EXPECT_TRUE(connecting(std::string("a\0b", 3), 1080)
                  .starts_with("TCP connect to proxy failed: getaddrinfo: "));

  // A listener that lets nobody in: its queue is full and its kernel drops what knocks.
  const int listener = openSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  ASSERT_TRUE(bindSocket(listener, socketAddress("127.0.0.1", 0)));
  listen(listener, 0);
  const sockaddr_in address = localAddress(listener);
  std::array<int, 4> waiting{};
  for (int& socket : waiting) {
    socket = openSocket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, IPPROTO_TCP);
    connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  const test::Stopwatch time;
  EXPECT_EQ(connecting("127.0.0.1", portNumber(address)),
            "TCP connect to proxy failed: connect: connect timeout");
  EXPECT_GE(time.seconds(), shortLimit - 0.01);
  EXPECT_LT(time.seconds(), shortLimit + 0.5);
  for (const int socket : waiting) {
    closeSocket(socket);
  }
  closeSocket(listener);
  EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST(SOCKS5Control, TriesEveryAddressOfAName) {
  SOCKS5Server proxy;  // on IPv4 only, which may be the second that the name has
  SOCKS5Control control("localhost", proxy.port(), {}, {}, longLimit);
  control.connect();
  EXPECT_NE(control.performHandshakeAndUDPAssociate().relayPort, 0);
}

TEST(SOCKS5Control, KeepsTheConnectionUntilItIsClosedOrGone) {
  SOCKS5Server proxy;
  const auto open = [&] { return proxy.counts().openConnections; };
  {
    SOCKS5Control control("127.0.0.1", proxy.port(), {}, {}, longLimit);
    control.close();
    EXPECT_EQ(failureOf([&] { control.performHandshakeAndUDPAssociate(); }),
              "TCP connect to proxy failed: output nil");
    control.connect();
    control.performHandshakeAndUDPAssociate();
    EXPECT_EQ(open(), 1U);
    control.close();
    EXPECT_TRUE(test::eventually([&] { return open() == 0; }));
    control.close();
    control.connect();
    EXPECT_TRUE(test::eventually([&] { return open() == 1; }));
  }
  EXPECT_TRUE(test::eventually([&] { return open() == 0; }));
}

}  // namespace
}  // namespace zk
