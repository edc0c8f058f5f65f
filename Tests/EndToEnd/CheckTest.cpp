// zkturn check, run as a user does, on proxies of all sorts.

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "EndToEnd/Rig.h"
#include "Loopback/ForeignProxy.h"

namespace zk::test {
namespace {

struct Result {
  int status = -1;
  std::string output;  // both of them

  nlohmann::json json() const { return nlohmann::json::parse(output); }
  bool says(const std::string& piece) const { return output.find(piece) != std::string::npos; }
};

// For a proxy on the loopback, unless `port` is 0.
Result check(std::uint16_t port, const std::vector<std::string>& options,
             bool isOnTerminal = false) {
  const TemporaryFolder folder;
  const std::string output = folder.path() / "output";
  std::vector<std::string> arguments{programBeside("zkturn"), "check"};
  if (port != 0) {
    arguments.push_back("127.0.0.1:" + std::to_string(port));
  }
  arguments.insert(arguments.end(), options.begin(), options.end());
  if (isOnTerminal) {
    arguments = {findProgram("script"), "-qec", fmt::format("{}", fmt::join(arguments, " ")),
                 "/dev/null"};
  }
  ChildProcess program(arguments, {}, output);
  const auto status = program.waitExit(longPatience);
  return {status.value_or(-1), contentOf(output)};
}

std::string secretFile(const TemporaryFolder& folder, const std::string& name,
                       const std::string& content) {
  const std::string path = folder.write(name, content);
  fs::permissions(path, fs::perms(0600));
  return path;
}

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

TEST(Check, TellsWhatIsWrongWithAProxyAndWhatToTry) {
  using Action = SOCKS5Step::Action;
  const TemporaryFolder folder;
  const std::string wrong = secretFile(folder, "wrong", "wrong\n");
  const std::string right = secretFile(folder, "right", "wonderful\r\n");
  const auto with = [](auto change) {
    SOCKS5Script script;
    change(script);
    return script;
  };
  const auto login = [](SOCKS5Script& script) { script.login = {"alice", "wonderful"}; };
  const struct {
    SOCKS5Script script;
    std::vector<std::string> options;
    std::vector<const char*> pieces;  // of the verdict
  } cases[] = {
      {with([](auto& s) { s.replyCode = 7; }),
       {},
       {"asked it for a UDP association", "UDP ASSOCIATE not supported by proxy", "use a proxy"}},
      {with([](auto& s) { s.greetingReply = bytes("HT"); }),
       {},
       {"does not let you in", "not SOCKS5 (bad ver 72)", "HTTP"}},
      {with([](auto& s) { s.onGreeting = {Action::silence}; }), {}, {"no answer", "SOCKS4"}},
      {with([](auto& s) { s.onAssociate = {Action::reset}; }),
       {},
       {"UDP association", "reset", "use a proxy"}},
      {with(login), {}, {"rejected all offered methods", "give --user and --pass-file"}},
      {with(login),
       {"--user", "alice", "--pass-file", wrong},
       {"does not let you in", "status 0x", "check user name and password"}},
      {with([](auto& s) { s.announceIPv4("239.1.2.3"); }),
       {},
       {"239.1.2.3", "multicast", "ask its operator"}},
      {with([](auto& s) {
         s.announceIPv6({0x20, 1});
       }),
       {},
       {": IPv6", "ask its operator"}},
      {with([](auto& s) { s.announceDomain("evil\033[2J\n"); }), {}, {"evil?[2J?"}},
      {with([](auto& s) { s.relay = SOCKS5Script::Relay::dropAll; }),
       {},
       {"does not carry UDP", "sent STUN requests", "no answer", "blocked"}},
      {with([](auto& s) { s.onAssociate = {Action::answerThenClose}; }),
       {},
       {"ended its connection: end of stream"}},
      {with(login), {"--user", "alice", "--pass-file", right, "--json"}, {}},  // all is well
  };
  const STUNResponder stun;
  for (const auto& c : cases) {
    SOCKS5Server proxy(c.script);
    auto options = c.options;
    options.insert(options.end(), {"--stun", stun.target(), "--timeout", "1", "--idle", "0"});
    const Result result = check(proxy.port(), options);
    EXPECT_EQ(result.status, c.pieces.empty() ? 0 : 1) << result.output;
    for (const char* const piece : c.pieces) {
      EXPECT_TRUE(result.says(piece)) << piece << " is missing: " << result.output;
    }
    EXPECT_EQ(result.output.find_first_of("\033\r"), std::string::npos);
    EXPECT_FALSE(result.says("wonderful"));
    proxy.closeListener();
    EXPECT_TRUE(check(proxy.port(), {}).says("nothing listens there"));
  }
}

TEST(Check, RemarksOnWhatIsLessThanItShouldBe) {
  // A translator that gives each destination a port of its own, and forgets.
  const STUNResponder stun(STUNScript{.mappedIP = egressIP, .mappedPort = 40000});
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
  EXPECT_TRUE(result.says("forgets an association after 1 s of silence"));
  // All that the servers heard came from the proxy.
  EXPECT_EQ(proxy.counts().datagramsToPeers, stun.requests() + other.requests());
}

TEST(Check, ShowsColoursAndItsProgressOnATerminal) {
  const STUNResponder stun;
  const SOCKS5Server proxy;
  const Result result =
      check(proxy.port(), {"--stun", stun.target(), "--count", "3", "--idle", "0"}, true);
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(result.says("\033[32m"));
  EXPECT_TRUE(result.says("relay 127.0.0.1:"));
  EXPECT_TRUE(result.says(" 2/3\r  ")) << result.output;
  EXPECT_TRUE(result.says(" 3/3\r\033[K ")) << result.output;
  EXPECT_EQ(count(result.output, "\033[K"), 1U) << "cleared when it is done";
}

TEST(Check, RefusesWrongUsageInOneSentence) {
  const std::string large(256, 'x');
  const TemporaryFolder folder;
  const std::string tooLong = secretFile(folder, "long", large);
  const std::string shown = folder.write("shown", "secret");
  fs::permissions(shown, fs::perms(0644));
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "no proxy"},
      {{"a:1", "--bogus"}, "--bogus"},
      {{"1.2.3.4"}, "\"1.2.3.4\" is not a proxy"},
      {{"1.2.3.4:0"}, "is not a proxy"},
      {{"1.2.3.4:65536"}, "is not a proxy"},
      {{"::1:1080"}, "is not a proxy"},
      {{":1080"}, "is not a proxy"},
      {{"http://a:1"}, "is not a proxy"},
      {{"alice:secret@a:1"}, "--user and --pass-file"},
      {{"socks5h://alice:secret@a:1"}, "--user and --pass-file"},
      {{"a:1", "socks5://alice:secret@a:1"}, "not understood"},
      {{"a:1", "--", "true"}, "runs no command"},
      {{"[::1]:1080", "--count", "0"}, "--count"},
      {{"a:1", "--idle", "soon"}, "--idle"},
      {{"a:1", "--stun", "stun.example:3478"}, "in numbers"},
      {{"a:1", "--stun", "1.2.3.4:1", "--stun", "1.2.3.4:2"}, "second destination"},
      {{"a:1", "--user", "u"}, "--user and --pass-file"},
      {{"a:1", "--pass-file", tooLong}, "--user and --pass-file"},
      {{"a:1", "--user", "u", "--pass-file", "/nonexistent"}, "cannot be read"},
      {{"a:1", "--user", "u", "--pass-file", shown}, "can be read by others"},
      {{"a:1", "--user", "u", "--pass-file", tooLong}, "password is 256 octets long"},
      {{"a:1", "--user", large, "--pass-file", "/dev/null"}, "user name is 256 octets long"},
  };
  for (const auto& [options, piece] : cases) {
    const Result result = check(0, options);
    EXPECT_EQ(result.status, 2) << piece;
    EXPECT_TRUE(result.says(piece)) << piece << " is missing: " << result.output;
    EXPECT_FALSE(result.says("secret")) << result.output;
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
  }
  EXPECT_EQ(check(0, {"--help"}).status, 0);
}

}  // namespace
}  // namespace zk::test
