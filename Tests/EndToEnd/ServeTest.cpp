// zkturn serve, run as a user does.

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "EndToEnd/Rig.h"

namespace zk::test {
namespace {

std::string fileOf(pid_t process, const char* name) {
  return contentOf("/proc/" + std::to_string(process) + "/" + name);
}

// The process that `parent` has started; absent without one.
std::optional<pid_t> childOf(pid_t parent) {
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const pid_t process = std::atoi(entry.path().filename().c_str());
    const std::string state = process > 0 ? fileOf(process, "stat") : "";
    const std::size_t name = state.rfind(')');
    if (name != std::string::npos && std::atoi(state.c_str() + name + 4) == parent) {
      return process;
    }
  }
  return std::nullopt;
}

bool isGone(pid_t process) {
  return eventually([&] {
    const std::string state = fileOf(process, "stat");
    return state.empty() || state.find(") Z") != std::string::npos;
  });
}

struct Serve {
  explicit Serve(const SOCKS5Script& script = {})
      : proxy(script),
        program({programBeside("zkturn"), "serve", "127.0.0.1:" + std::to_string(proxy.port()),
                 "--stun", stun.target(), "--timeout", "2"}) {}

  /// Its line, read.
  nlohmann::json server() {
    const auto line = program.readLine(patience);
    const auto json = nlohmann::json::parse(line.value_or("{}"));
    EXPECT_EQ(json["iceTransportPolicy"], "relay") << json;
    return json["iceServers"][0];
  }

  STUNResponder stun{STUNScript{.mappedIP = egressIP}};
  SOCKS5Server proxy;
  ChildProcess program;
};

std::unique_ptr<TURNClient> clientOf(const nlohmann::json& server) {
  const std::string url = server["urls"][0];
  const std::string start = "turn:127.0.0.1:";
  EXPECT_TRUE(url.starts_with(start) && url.ends_with("?transport=udp")) << url;
  return std::make_unique<TURNClient>(
      static_cast<std::uint16_t>(std::atoi(url.c_str() + start.size())),
      TURNCredentials{.username = server["username"], .password = server["credential"]});
}

TEST(Serve, PrintsWhatAPageNeedsAndKeepsItFromEverybodyElse) {
  Serve serve;
  const auto server = serve.server();
  const auto client = clientOf(server);
  ASSERT_TRUE(client->allocate().success());
  const EchoPeer peer;
  EXPECT_TRUE(echoes(*client, peer, bytes("hello")));

  const pid_t daemon = childOf(serve.program.pid()).value();
  const std::string credential = server["credential"];
  EXPECT_GE(credential.size(), 22U);
  for (const pid_t process : {serve.program.pid(), daemon}) {
    for (const char* const file : {"cmdline", "environ"}) {
      const std::string content = fileOf(process, file);
      EXPECT_FALSE(content.empty());
      EXPECT_EQ(content.find(credential), std::string::npos);
    }
  }
  EXPECT_NE(fileOf(daemon, "status").find("Umask:\t0077"), std::string::npos);
  for (const char* const log : {"zkturnd", "zk-egress", "zkturnd-dp"}) {
    EXPECT_EQ(contentOf(fmt::format("/tmp/{}.log", log)).find(credential), std::string::npos);
  }

  serve.program.sendSignal(SIGINT);
  EXPECT_EQ(serve.program.waitExit(patience), 0);
  EXPECT_FALSE(serve.program.readLine(patience)) << "one line and nothing else";
  EXPECT_TRUE(isGone(daemon));
}

TEST(Serve, TakesTheDaemonAlongHoweverItEnds) {
  for (const int signal : {SIGTERM, SIGHUP, SIGKILL}) {
    Serve serve;
    serve.server();
    const pid_t daemon = childOf(serve.program.pid()).value();
    serve.program.sendSignal(signal);
    EXPECT_EQ(serve.program.waitExit(patience), signal == SIGKILL ? -SIGKILL : 0);
    EXPECT_TRUE(isGone(daemon)) << signal;
  }
}

TEST(Serve, EndsWithTheDaemon) {
  Serve serve;
  serve.server();
  kill(childOf(serve.program.pid()).value(), SIGKILL);
  EXPECT_EQ(serve.program.waitExit(patience), 1);
}

TEST(Serve, SaysWhatIsWrongWithTheProxyAndPrintsNothing) {
  SOCKS5Script script;
  script.replyCode = 7;
  Serve serve(script);
  EXPECT_EQ(serve.program.waitExit(patience), 1);
  EXPECT_FALSE(serve.program.readLine(patience));
}

// Peers see the port that a translator made of it, the same for all.
TEST(Serve, ReportsThePortThatPeersSee) {
  const STUNResponder other(STUNScript{.mappedIP = egressIP, .mappedPort = 40000}, "127.0.0.2");
  const STUNResponder stun(STUNScript{.mappedIP = egressIP, .mappedPort = 40000});
  const SOCKS5Server proxy;
  ChildProcess program({programBeside("zkturn"), "serve",
                        "127.0.0.1:" + std::to_string(proxy.port()), "--stun", stun.target(),
                        "--stun", other.target()});
  const auto json = nlohmann::json::parse(program.readLine(patience).value_or("{}"));
  const auto answer = clientOf(json["iceServers"][0])->allocate();
  ASSERT_TRUE(answer.success());
  EXPECT_EQ(answer.relayedAddress()->port, 40000);
}

TEST(Serve, EndsInOrderOnCtrlCAtATerminal) {
  const STUNResponder stun;
  const SOCKS5Server proxy;
  const TemporaryFolder folder;
  const std::string output = folder.path() / "output";
  ChildProcess terminal({findProgram("script"), "-qec",
                         fmt::format("exec '{}' serve 127.0.0.1:{} --stun {}",
                                     programBeside("zkturn"), proxy.port(), stun.target()),
                         "/dev/null"},
                        {}, output);
  ASSERT_TRUE(eventually([&] { return contentOf(output).find("Ctrl-C") != std::string::npos; }))
      << contentOf(output);
  terminal.write("\x03");
  EXPECT_EQ(terminal.waitExit(patience), 0) << contentOf(output);
  EXPECT_EQ(contentOf(output).find("ended by itself"), std::string::npos);
}

}  // namespace
}  // namespace zk::test
