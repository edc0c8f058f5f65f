// The command line of zkturn, as a user gets it wrong or right.

#include "EndToEnd/Check.h"

namespace zk::test {
namespace {

TEST(CommandLine, RefusesWrongUsageInOneSentence) {
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
      {{"--stun", "stun.example:3478", "a:1"}, "in numbers"},
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

// A folder that stands for the user's home, with a file that names the proxy.
struct Home {
  explicit Home(const std::string& content) {
    fs::create_directories(path() / ".config" / "zkturn");
    folder.write(".config/zkturn/proxy", content);
  }
  fs::path path() const { return folder.path(); }
  Result check(std::vector<std::string> options) const {
    options.insert(options.end(), {"--count", "1", "--idle", "0", "--timeout", "1"});
    return test::check(0, options, false,
                       {{"HOME", path()}, {"XDG_CONFIG_HOME", ""}, {"ZK_STUN_IPS", stun.target()}});
  }

  TemporaryFolder folder;
  STUNResponder stun;
};

TEST(CommandLine, TakesTheProxyOfTheUsersFileWhenNoneIsNamed) {
  SOCKS5Script script;
  script.login = {"alice", "wonderful"};
  const SOCKS5Server proxy(script);
  const SOCKS5Server other;
  const Home home(fmt::format(
      "# mine\naddress socks5://127.0.0.1:{}/\n\nuser alice\npass-file password\n", proxy.port()));
  secretFile(home.folder, ".config/zkturn/password", "wonderful\n");
  EXPECT_EQ(home.check({}).status, 0) << home.check({}).output;
  // Its login is for its proxy only.
  const Result elsewhere = home.check({"127.0.0.1:" + std::to_string(other.port())});
  EXPECT_EQ(elsewhere.status, 0);
  EXPECT_EQ(textOf(other.controlBytes(0)).find("alice"), std::string::npos);
  EXPECT_FALSE(elsewhere.says("asks for no login"));

  for (const auto& [content, piece] :
       {std::pair{"adress a:1\n", "line 1 of "},
        {"user alice\n", "has no line: address"},
        {"address alice:secret@a:1\n", "--user and --pass-file"},
        {"address a:1\nuser alice\n", "one of user and pass-file"}}) {
    const Result wrong = Home(content).check({});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_TRUE(wrong.says(piece)) << wrong.output;
    EXPECT_FALSE(wrong.says("secret")) << wrong.output;
  }
}

TEST(CommandLine, AsksForThePasswordOnTheTerminalAndDoesNotShowIt) {
  SOCKS5Script script;
  script.login = {"alice", "wonderful"};
  const SOCKS5Server proxy(script);
  const STUNResponder stun;
  const TemporaryFolder folder;
  const std::string output = folder.path() / "output";
  ChildProcess terminal(
      {findProgram("script"), "-qec",
       fmt::format("'{}' check 127.0.0.1:{} --user alice --pass-file - --stun {} --idle 0; "
                   "stty -a; exit $?",
                   programBeside("zkturn"), proxy.port(), stun.target()),
       "/dev/null"},
      {}, output);
  ASSERT_TRUE(
      eventually([&] { return contentOf(output).find("Password of alice") != std::string::npos; }));
  terminal.write("wonderful\n");
  EXPECT_EQ(terminal.waitExit(patience), 0);
  const std::string said = contentOf(output);
  EXPECT_NE(said.find("carries UDP"), std::string::npos) << said;
  EXPECT_EQ(said.find("wonderful"), std::string::npos) << said;
  EXPECT_NE(said.find(" echo "), std::string::npos) << "the terminal is as before: " << said;
  // Without a terminal there is nobody to ask.
  const Result alone = check(proxy.port(), {"--user", "alice", "--pass-file", "-"});
  EXPECT_EQ(alone.status, 2) << alone.output;
}

}  // namespace
}  // namespace zk::test
