// zkturn check, run as a user does, on proxies of all sorts.

#include "EndToEnd/Check.h"
#include "Loopback/ForeignProxy.h"
#include "PrivateNetwork.h"

namespace zk::test {
namespace {

class CheckTest : public testing::TestWithParam<const char*> {};

TEST_P(CheckTest, FindsThatARealProxyCarriesUDP) {
  if (const auto hindrance = ForeignProxy::hindrance(GetParam()); !hindrance.empty()) {
    GTEST_SKIP() << hindrance;
  }
  const ForeignProxy proxy(GetParam());
  const STUNResponder stun;
  const STUNResponder other({}, "127.0.0.2");
  const Result result = check(proxy.port(), {"--stun", stun.target(), "--stun", other.target(),
                                             "--count", "5", "--idle", "1", "--json"});
  ASSERT_EQ(result.status, 0) << result.output;
  const auto found = result.json();
  EXPECT_EQ(found["carriesUDP"], true);
  EXPECT_EQ(found["seenByPeers"]["address"], "127.0.0.1");
  EXPECT_EQ(found["sent"], 5);
  EXPECT_GE(found["answered"], 4);
  EXPECT_GT(found["roundTripMilliseconds"]["median"], 0.0);
  EXPECT_GE(found["largestDatagram"], 1200);
  // The second sends from a port of its own for each destination.
  EXPECT_EQ(found["samePort"], std::string_view(GetParam()) != "v2ray");
  EXPECT_EQ(found["survivesIdle"], true);
}

INSTANTIATE_TEST_SUITE_P(Proxies, CheckTest, testing::ValuesIn(ForeignProxy::names),
                         [](const auto& proxy) {
                           std::string name = proxy.param;
                           std::erase(name, '-');
                           return name;
                         });

using Action = SOCKS5Step::Action;

SOCKS5Script with(const std::function<void(SOCKS5Script&)>& change) {
  SOCKS5Script script;
  change(script);
  return script;
}

SOCKS5Script stepAt(SOCKS5Step SOCKS5Script::*step, Action action) {
  return with([&](SOCKS5Script& script) { script.*step = {action}; });
}

// One proxy, and what a user is told about it.
struct Proxy {
  const char* name;
  SOCKS5Script script;
  nlohmann::json carriesUDP;
  std::vector<const char*> told{};
  std::vector<std::string> options{};
  int status = 1;
  double seconds = 3.5;  // at most, of 1 per step, on a machine that has more to do
};

std::vector<Proxy> proxies(const TemporaryFolder& folder, const STUNResponder& stun) {
  const auto login = [](SOCKS5Script& script) { script.login = {"alice", "wonderful"}; };
  const auto loginFrom = [&](const std::string& file) {
    return std::vector<std::string>{"--user", "alice", "--pass-file", file};
  };
  const std::string wrong = secretFile(folder, "wrong", "wrong\n");
  const std::string right = secretFile(folder, "right", "wonderful\r\n");
  const std::string dead = "127.0.0.3:9";
  const SOCKS5Script lettingNothingThrough =
      with([](auto& s) { s.relay = SOCKS5Script::Relay::dropAll; });
  const bool no = false;
  const bool yes = true;
  const nlohmann::json unknown = nullptr;
  return {
      {"does not do UDP",
       with([](auto& s) { s.replyCode = 7; }),
       no,
       {"asked it for a UDP association", "UDP ASSOCIATE not supported by proxy", "use a proxy"}},
      {"is one for HTTP",
       with([](auto& s) { s.greetingReply = bytes("HT"); }),
       unknown,
       {"does not let you in", "not SOCKS5 (bad ver 72)", "HTTP"}},
      {"closes at the greeting",
       stepAt(&SOCKS5Script::onGreeting, Action::close),
       unknown,
       {"\"a closed connection\"", "HTTP"},
       {"--timeout", "20"}},
      {"closes instead of a login",
       with([&](auto& s) {
         login(s);
         s.onAuth = {Action::close};
       }),
       unknown,
       {"\"a closed connection\"", "password"},
       loginFrom(right)},
      {"resets at the association",
       stepAt(&SOCKS5Script::onAssociate, Action::reset),
       no,
       {"UDP association", "\"a reset connection\"", "use a proxy"}},
      {"hangs at the greeting",
       stepAt(&SOCKS5Script::onGreeting, Action::silence),
       unknown,
       {"\"no answer\"", "hangs", "--timeout"}},
      {"hangs in the middle of an answer",
       stepAt(&SOCKS5Script::onAssociate, Action::half),
       unknown,
       {"\"no answer\"", "hangs", "--timeout"}},
      {"answers octet by octet, too slowly",
       with([](auto& s) {
         s.onAssociate = {Action::dribble, milliseconds(0), milliseconds(300)};
       }),
       unknown,
       {"\"no answer\"", "hangs", "--timeout"}},
      {"wants a login",
       with(login),
       unknown,
       {"rejected all offered methods", "give --user and --pass-file"}},
      {"wants another login",
       with(login),
       unknown,
       {"does not let you in", "\"the proxy refused the login\"", "check user name and password"},
       loginFrom(wrong)},
      {"wants that login", with(login), yes, {}, loginFrom(right), 0},
      {"wants no login", {}, yes, {"asks for no login"}, loginFrom(right), 0},
      {"answers with a multicast address",
       with([](auto& s) { s.announceIPv4("239.1.2.3"); }),
       no,
       {"239.1.2.3", "multicast", "ask its operator"}},
      {"answers with IPv6",
       with([](auto& s) { s.announceIPv6({}); }),
       no,
       {"IPv6", "ask its operator"}},
      {"answers with a name that is none",
       with([](auto& s) { s.announceDomain("evil\033[2J\n"); }),
       no,
       {"evil?[2J?"}},
      {"lets nothing through to several servers",
       lettingNothingThrough,
       no,
       {"does not carry UDP", "no answer", "blocked"},
       {"--stun", stun.target(), "--stun", dead},
       1,
       5},
      {"lets nothing through to one server",
       lettingNothingThrough,
       unknown,
       {"may carry UDP or not", "two operators"},
       {},
       3,
       5},
      {"is well, and the server is dead",
       {},
       unknown,
       {"may carry UDP or not", "127.0.0.3:9 and to others"},
       {"--stun", dead},
       3,
       5},
      {"is well, and the first server is dead",
       {},
       yes,
       {"peers will see"},
       {"--stun", dead, "--stun", stun.target()},
       0,
       5},
      {"ends the association",
       stepAt(&SOCKS5Script::onAssociate, Action::answerThenClose),
       no,
       {"ended its connection: end of stream"}},
  };
}

TEST(Check, TellsWhatIsWrongWithAProxyAndWhatToTry) {
  const TemporaryFolder folder;
  const STUNResponder stun;
  std::vector<std::thread> running;  // most of it is waiting
  for (const Proxy& row : proxies(folder, stun)) {
    running.emplace_back([row, &stun] {
      const SOCKS5Server proxy(row.script);
      std::vector<std::string> options{"--idle", "0", "--count", "2"};
      options.insert(options.end(), row.options.begin(), row.options.end());
      const auto addUnlessGiven = [&](const char* option, const std::string& value) {
        if (std::find(options.begin(), options.end(), option) == options.end()) {
          options.insert(options.end(), {option, value});
        }
      };
      addUnlessGiven("--timeout", "1");
      addUnlessGiven("--stun", stun.target());
      const Stopwatch watch;
      const Result result = check(proxy.port(), options);
      EXPECT_LT(watch.seconds(), row.seconds) << row.name;
      EXPECT_EQ(result.status, row.status) << row.name << ": " << result.output;
      for (const char* const piece : row.told) {
        EXPECT_TRUE(result.says(piece))
            << row.name << ": no \"" << piece << "\" in " << result.output;
      }
      EXPECT_FALSE(result.says("wonderful") || result.says("0x")) << result.output;
      EXPECT_EQ(result.output.find_first_of("\033\r"), std::string::npos) << row.name;

      options.push_back("--json");
      const auto json = check(proxy.port(), options).json();
      EXPECT_EQ(json["carriesUDP"], row.carriesUDP) << row.name << ": " << json;
    });
  }
  for (std::thread& one : running) {
    one.join();
  }
}

TEST(Check, TellsProgramsTheNumberOfARefusal) {
  const TemporaryFolder folder;
  SOCKS5Script script;
  script.login = {"alice", "wonderful"};
  const SOCKS5Server proxy(script);
  const auto json = check(proxy.port(), {"--user", "alice", "--pass-file",
                                         secretFile(folder, "wrong", "wrong"), "--json"})
                        .json();
  EXPECT_EQ(json["steps"].back()["code"], "status 0x1") << json;
}

TEST(Check, DoesNotSayNoWhenNoNameCanBeLookedUp) {
  const PrivateNetwork network;  // has no resolver
  if (!network) {
    GTEST_SKIP() << "needs root, for a network of its own";
  }
  const SOCKS5Server proxy;
  const Result result = check(proxy.port(), {"--timeout", "1", "--json"});
  EXPECT_EQ(result.status, 3) << result.output;
  EXPECT_EQ(result.json()["carriesUDP"], nullptr);
  EXPECT_TRUE(result.says("may carry UDP or not")) << result.output;
}

TEST(Check, RemarksOnWhatIsLessThanItShouldBe) {
  // A translator that gives each destination a port of its own, and forgets, behind an Ethernet.
  const STUNResponder stun(STUNScript{.mappedIP = egressIP, .mappedPort = 40000, .largest = 1472});
  const STUNResponder other(STUNScript{.mappedIP = egressIP, .mappedPort = 40001}, "127.0.0.2");
  SOCKS5Server proxy;
  std::thread forgetting([&] {
    eventually([&] { return other.requests() > 0; });
    proxy.closeControlConnections();
  });
  const Result result = check(proxy.port(), {"--stun", stun.target(), "--stun", other.target(),
                                             "--count", "3", "--idle", "1"});
  forgetting.join();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(result.says("peers will see 203.0.113.9:40000")) << result.output;
  EXPECT_TRUE(result.says("sees 203.0.113.9:40001"));
  EXPECT_TRUE(result.says("two people behind this proxy cannot call each other"));
  EXPECT_TRUE(result.says("1472 octets pass, 2048 do not")) << result.output;
  EXPECT_TRUE(result.says("forgets an association after 1 s of silence"));
  // All that the servers heard came from the proxy.
  EXPECT_EQ(proxy.counts().datagramsToPeers, stun.requests() + other.requests());
}

TEST(Check, ShowsColoursAndItsProgressOnATerminal) {
  const STUNResponder stun({.largest = 1100});
  const SOCKS5Server proxy;
  const Result result =
      check(proxy.port(), {"--stun", stun.target(), "--count", "3", "--idle", "0"}, true);
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(result.says("\033[32m"));
  EXPECT_TRUE(result.says("relay 127.0.0.1:"));
  EXPECT_TRUE(result.says("datagrams of 1200 octets, as WebRTC sends them, do not pass"));
  EXPECT_TRUE(result.says(" 2/3\r  ")) << result.output;
  EXPECT_TRUE(result.says(" 3/3\r\033[K ")) << result.output;
  EXPECT_EQ(count(result.output, "\033[K"), 1U) << "cleared when it is done";
}

}  // namespace
}  // namespace zk::test
