#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>

#include "Base/Endpoint.h"
#include "Loopback/SOCKS5Server.h"
#include "Platform/Resolver.h"
#include "Platform/Sockets.h"
#include "Platform/StopSignal.h"
#include "Support.h"
#include "System.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"

namespace {
std::promise<void> resolverSpeaks;
const std::shared_future<void> resolverSpeaking = resolverSpeaks.get_future().share();
std::atomic<int> waitForResolver{0};  // threads, which must be gone before the promise is
}  // namespace

// The system's resolver, with some names of the tests' own. None is looked up anywhere else.
extern "C" int getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                           addrinfo** found) {
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  const std::string_view name = host;
  const bool mayLookUp = (hints->ai_flags & AI_NUMERICHOST) == 0;
  if (mayLookUp && name == "silent.test") {
    ++waitForResolver;
    resolverSpeaking.wait();
    --waitForResolver;
  }
  if (mayLookUp && name == "two.test") {  // nobody listens at the first
    addrinfo* second = nullptr;
    real("127.0.0.1", port, hints, &second);
    real("127.0.0.2", port, hints, found);
    (*found)->ai_next = second;
    return 0;
  }
  const std::pair<std::string_view, const char*> known[] = {
      {"relay.test", "192.0.2.1"}, {"inner.test", "10.1.2.3"}, {"own.test", "0.0.0.0"}};
  for (const auto& [own, address] : known) {
    if (mayLookUp && name == own) {
      return real(address, port, hints, found);
    }
  }
  addrinfo numeric = *hints;
  numeric.ai_flags |= AI_NUMERICHOST;
  return real(host, port, &numeric, found);
}

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
constexpr double patience = 3;  // on a busy machine; what a wait without end would not keep

const char* const greeting = "050100";
const char* const greetingWithLogin = "05020002";
const char* const associate = "05030001000000000000";

std::string failureOf(const std::function<void()>& work) {
  try {
    work();
  } catch (const SOCKS5Error& error) {
    return error.description();
  }
  return "";
}

// What came of one whole conversation with a proxy.
struct Outcome {
  std::string error{};  // empty when an association was made
  double seconds = 0;
  Bytes sent{};  // to the proxy
};

Outcome converse(const SOCKS5Script& script, double limit = longLimit, const Text& user = {},
                 const Text& password = {}) {
  signal(SIGPIPE, SIG_DFL);  // one that is raised shall end the test
  SOCKS5Server proxy(script);
  SOCKS5Control control("127.0.0.1", proxy.port(), user, password, limit);
  const test::Stopwatch time;
  Outcome outcome;
  outcome.error = failureOf([&] {
    control.connect();
    control.performHandshakeAndUDPAssociate();
  });
  outcome.seconds = time.seconds();
  control.close();
  test::eventually([&] { return proxy.counts().openConnections == 0; });
  outcome.sent = proxy.controlBytes(0);
  return outcome;
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

TEST(SOCKS5Control, LogsInWhenTheProxyAsksForItHoweverItsAnswersCome) {
  SOCKS5Script script;
  script.login = {"al\u00EFce", "secret"};
  script.onGreeting = script.onAuth = script.onAssociate = {Action::dribble, 0ms, 5ms};
  Outcome outcome = converse(script, longLimit, "al\u00EFce", "secret");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.sent, hex(std::string(greetingWithLogin) + "0106616CC3AF6365" +
                              "06736563726574" + associate));
  EXPECT_TRUE(
      converse(script, longLimit, "alice", "wrong").error.starts_with("auth failed: status 0x"));

  script.login = {"", ""};
  outcome = converse(script, longLimit, "", "");
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

// A proxy that has said all that it will say before anybody reads it.
class CannedProxy {
 public:
  explicit CannedProxy(const std::string& ip, std::uint16_t port = 0)
      : listener_(socket(ip.find(':') == std::string::npos ? AF_INET : AF_INET6, SOCK_STREAM, 0)) {
    sockaddr_in ipv4 = Endpoint{parseAddress(ip).value_or(0), port}.socketAddress();
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    const bool isIPv6 = inet_pton(AF_INET6, ip.c_str(), &ipv6.sin6_addr) == 1;
    socklen_t length = isIPv6 ? sizeof ipv6 : sizeof ipv4;
    auto* const address =
        isIPv6 ? reinterpret_cast<sockaddr*>(&ipv6) : reinterpret_cast<sockaddr*>(&ipv4);
    EXPECT_EQ(bind(listener_.get(), address, length), 0) << ip;
    listen(listener_.get(), 1);
    getsockname(listener_.get(), address, &length);
    port_ = ntohs(isIPv6 ? ipv6.sin6_port : ipv4.sin_port);
  }

  std::uint16_t port() const { return port_; }
  Descriptor answer(const Bytes& answers) const {
    Descriptor client(accept(listener_.get(), nullptr, nullptr));
    send(client.get(), answers.data(), answers.size(), sendFlags);
    return client;
  }

 private:
  Descriptor listener_;
  std::uint16_t port_ = 0;
};

struct Answer {
  const char* proxyIP;
  const char* reply;
  const char* relayHost;  // empty when the opening fails
  const char* expected;   // the relay's address, or how the failure begins
};

const Answer answers[] = {
    {"127.0.0.1", "05000001 C0000201 9C40", "192.0.2.1", "192.0.2.1"},
    {"127.0.0.1", "0500FF01 0A000001 9C40", "10.0.0.1", "10.0.0.1"},
    {"127.0.0.1", "05000003 0A 72656C61792E74657374 9C40", "relay.test", "192.0.2.1"},
    // Nothing, in four ways: where the control connection goes.
    {"127.0.0.1", "05000001 00000000 9C40", "127.0.0.1", "127.0.0.1"},
    {"127.0.0.1", "05000003 00 9C40", "127.0.0.1", "127.0.0.1"},
    {"127.0.0.1", "05000003 02 C3FF 9C40", "127.0.0.1", "127.0.0.1"},  // not UTF-8
    {"127.0.0.1", "05000003 08 6F776E2E74657374 9C40", "own.test", "127.0.0.1"},
    // What cannot be.
    {"127.0.0.1", "05000001 EF010203 9C40", "",
     "SOCKS5 protocol error: relay 239.1.2.3:40000: a multicast address"},
    {"127.0.0.1", "05000001 FFFFFFFF 9C40", "",
     "SOCKS5 protocol error: relay 255.255.255.255:40000: the broadcast address"},
    {"127.0.0.1", "05000001 00FF0005 9C40", "",
     "SOCKS5 protocol error: relay 0.255.0.5:40000: no host's address"},
    {"127.0.0.1", "05000001 C0000201 0000", "",
     "SOCKS5 protocol error: relay 192.0.2.1:0: no port to send to"},
    {"127.0.0.1", "05000003 05 72656C6179 9C40", "",
     "TCP connect to proxy failed: relay getaddrinfo(relay:40000): "},
    {"127.0.0.1", "05000004 20010DB8000000000000000000000001 9C40", "",
     "TCP connect to proxy failed: relay getaddrinfo("
     "20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:01:40000): IPv6"},
    {"::1", "05000001 7F000001 9C40", "127.0.0.1", "127.0.0.1"},
    {"::1", "05000001 00000000 9C40", "", "SOCKS5 protocol error: relay 0.0.0.0:40000: means"},
    // What cannot be reached from as far away as the proxy means the proxy.
    {"203.0.113.5", "05000001 C0000201 9C40", "192.0.2.1", "192.0.2.1"},
    {"203.0.113.5", "05000001 0AFF0203 9C40", "10.255.2.3", "203.0.113.5"},
    {"203.0.113.5", "05000001 647F0001 9C40", "100.127.0.1", "203.0.113.5"},
    {"203.0.113.5", "05000001 AC1F0001 9C40", "172.31.0.1", "203.0.113.5"},
    {"203.0.113.5", "05000001 AC200001 9C40", "172.32.0.1", "172.32.0.1"},
    {"203.0.113.5", "05000001 A9FEFF01 9C40", "169.254.255.1", "203.0.113.5"},
    {"203.0.113.5", "05000001 7FFF0001 9C40", "127.255.0.1", "203.0.113.5"},
    {"203.0.113.5", "05000001 C0A8FF01 9C40", "192.168.255.1", "203.0.113.5"},
    {"203.0.113.5", "05000003 0A 696E6E65722E74657374 9C40", "inner.test", "203.0.113.5"},
    {"192.168.9.9", "05000001 0A010203 9C40", "10.1.2.3", "10.1.2.3"},
    {"192.168.9.9", "05000001 7F000001 9C40", "127.0.0.1", "192.168.9.9"},
    {"2001:db8::5", "05000001 0A010203 9C40", "",
     "SOCKS5 protocol error: relay 10.1.2.3:40000: means"},
};

TEST(SOCKS5Control, SendsDatagramsOnlyToWhereTheProxyIs) {
  std::thread([] {  // a machine with some addresses more
    const bool isPrivate =
        test::enterNewNetwork() &&
        std::system(
            "ip link set lo up && ip addr add 203.0.113.5 dev lo && "
            "ip addr add 192.168.9.9 dev lo && ip addr add 2001:db8::5 dev lo nodad && "
            // The system makes the route to that one a little later.
            "timeout 10 sh -c 'until ip -6 route get 2001:db8::5 2>&1 | grep -q ^local; "
            "do sleep 0.01; done'") == 0;
    for (const auto& [proxyIP, reply, relayHost, expected] : answers) {
      const std::string_view ip = proxyIP;
      if (!isPrivate && ip != "127.0.0.1" && ip != "::1") {
        continue;
      }
      const CannedProxy proxy(proxyIP);
      SOCKS5Control control(proxyIP, proxy.port(), {}, {}, longLimit);
      control.connect();
      const Descriptor connection = proxy.answer(hex(std::string("0500") + reply));
      SOCKS5Control::RelayEndpoint relay;
      const std::string failure =
          failureOf([&] { relay = control.performHandshakeAndUDPAssociate(); });
      EXPECT_EQ(relay.relayHost, relayHost) << reply;
      if (*relayHost == '\0') {
        EXPECT_EQ(failure.substr(0, std::string_view(expected).size()), expected);
      } else {
        EXPECT_EQ(failure, "");
        EXPECT_EQ(relay.relayAddress.ip(), expected) << reply;
        EXPECT_EQ(relay.relayAddress.port, 40000);
        EXPECT_EQ(relay.relayPort, 40000);
      }
    }
  })
      .join();
}

TEST(SOCKS5Control, EndsEveryWaitAtItsDeadline) {
  for (const SOCKS5Step& step :
       {SOCKS5Step{Action::silence}, SOCKS5Step{Action::half}, SOCKS5Step{Action::close},
        SOCKS5Step{Action::answer, 600ms}, SOCKS5Step{Action::dribble, 0ms, 120ms}}) {
    for (SOCKS5Step SOCKS5Script::*at :
         {&SOCKS5Script::onGreeting, &SOCKS5Script::onAuth, &SOCKS5Script::onAssociate}) {
      SOCKS5Script script;
      script.login = {"alice", "secret"};
      script.*at = step;
      // Octets that keep coming do not extend the limit of a read.
      const Outcome outcome = converse(script, shortLimit / 2, "alice", "secret");
      EXPECT_EQ(outcome.error, "TCP connect to proxy failed: read timeout");
      EXPECT_GE(outcome.seconds, shortLimit / 2);
      EXPECT_LT(outcome.seconds, patience);
    }
  }
}

TEST(SOCKS5Control, EndsEveryWaitWhenItIsStopped) {
  const auto stopped = [](const std::string& host, std::uint16_t port, auto work) {
    StopSignal stop;
    SOCKS5Control control(host, port, {}, {}, 60, &stop);
    auto raiser = std::async(std::launch::async, [&] {
      std::this_thread::sleep_for(50ms);
      stop.raise();
    });
    const test::Stopwatch time;
    EXPECT_EQ(failureOf([&] { work(control); }), "TCP connect to proxy failed: stopped");
    EXPECT_LT(time.seconds(), patience);
  };
  const auto connects = [](SOCKS5Control& control) { control.connect(); };
  const auto opens = [](SOCKS5Control& control) {
    control.connect();
    control.performHandshakeAndUDPAssociate();
  };
  for (const Action action : {Action::silence, Action::close}) {
    SOCKS5Script script;
    script.onGreeting = {action};
    SOCKS5Server proxy(script);
    stopped("127.0.0.1", proxy.port(), opens);
  }
  // Lookups that are given up leave a thread behind each, and not any number of them.
  for (int i = 0; i < 15; ++i) {
    stopped("silent.test", 1, connects);
  }
  const Deadline soon = Deadline::clock::now() + 50ms;
  EXPECT_EQ(resolveTCP("silent.test", "1", soon, nullptr).error, gai_strerror(EAI_AGAIN));
  SOCKS5Control oneMore("silent.test", 1, {}, {}, longLimit);
  EXPECT_EQ(failureOf([&] { oneMore.connect(); }),
            "TCP connect to proxy failed: getaddrinfo: "
            "too many lookups are still waiting for the resolver");
  resolverSpeaks.set_value();
  EXPECT_TRUE(test::eventually(
      [&] { return failureOf([&] { oneMore.connect(); }).find("too many") == std::string::npos; }));
  EXPECT_TRUE(test::eventually([] { return waitForResolver == 0; }));
}

TEST(SOCKS5Control, FailsAtOnceAndWithoutASignalWhenTheProxyResets) {
  for (SOCKS5Step SOCKS5Script::*at : {&SOCKS5Script::onGreeting, &SOCKS5Script::onAssociate}) {
    SOCKS5Script script;
    script.*at = {Action::reset};
    const Outcome outcome = converse(script);
    EXPECT_EQ(outcome.error, "TCP connect to proxy failed: read -1");
    EXPECT_LT(outcome.seconds, 2);
  }
}

TEST(SOCKS5Control, TellsWhyItCannotConnect) {
  const auto connecting = [](const std::string& host, std::int64_t port) {
    return failureOf([&] { SOCKS5Control(host, port, {}, {}, shortLimit).connect(); });
  };
  std::uint16_t refused = 0;
  {
    SOCKS5Server proxy;
    refused = proxy.port();
  }
  const auto descriptors = test::openDescriptors();
  const test::Stopwatch resolving;
  for (const char* const host : {"127.0.0.1", "two.test"}) {
    EXPECT_EQ(connecting(host, refused),
              "TCP connect to proxy failed: connect: " + errorText(ECONNREFUSED));
  }
  EXPECT_LT(resolving.seconds(), patience);
  for (const auto& [host, port] : {std::pair{std::string("a\0b", 3), 1080L},
                                   {"127.0.0.1", -1L},
                                   {"127.0.0.1", 1L << 40},
                                   {"unknown.test", 1080L}}) {
    const std::string failure = connecting(host, port);
    EXPECT_TRUE(failure.starts_with("TCP connect to proxy failed: ")) << failure << ' ' << port;
  }

  // A listener that lets nobody in: its queue is full and its kernel drops what knocks.
  {
    const CannedProxy full("127.0.0.1");
    const sockaddr_in address = Endpoint{INADDR_LOOPBACK, full.port()}.socketAddress();
    std::array<Descriptor, 4> waiting;
    for (Descriptor& socket : waiting) {
      socket = openNonBlockingSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    const test::Stopwatch time;
    EXPECT_EQ(connecting("127.0.0.1", full.port()),
              "TCP connect to proxy failed: connect: connect timeout");
    EXPECT_GE(time.seconds(), shortLimit - 0.01);
    EXPECT_LT(time.seconds(), patience);
  }
  EXPECT_EQ(test::openDescriptors(), descriptors);
}

}  // namespace
}  // namespace zk
