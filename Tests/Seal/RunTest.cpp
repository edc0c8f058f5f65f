// What people run: a seal, what carries for it, and a proxy.

#include <csignal>
#include <iterator>

#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Seal/SealLab.h"

namespace zk::lab {
namespace {

using loopback::SOCKS5Login;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;

const Traffic toProxy{"TCP to 10.2.0.2 by wire", "UDP to 10.2.0.2 by wire"};

class RunTest : public SealTest {
 protected:
  void SetUp() override {
    SealTest::SetUp();
    if (lab == nullptr) {
      return;
    }
    NetworkLab::in("internet", [&] {
      stun = std::make_unique<STUNResponder>(STUNScript{.mappedIP = NetworkLab::proxyPublic},
                                             NetworkLab::internet, 3478);
      internet = std::make_unique<ChildProcess>(std::vector<std::string>{
          loopback::findProgram("python3"), ZK_SEAL_TESTS "/far_side.py", NetworkLab::internet});
      ASSERT_EQ(internet->readLine(patience), "listens");
    });
    environment["ZK_STUN_IPS"] = stun->target();
    NetworkLab::change("until ip netns exec proxy ss -Htln | grep -q :1080; do sleep 0.05; done");
  }

  std::vector<std::string> throughProxy(const std::vector<std::string>& command,
                                        const std::vector<std::string>& options = {}) {
    std::vector<std::string> all{zkturn, "run", proxy, "--dns", NetworkLab::internet};
    all.insert(all.end(), options.begin(), options.end());
    all.push_back("--");
    all.insert(all.end(), command.begin(), command.end());
    return all;
  }
  static std::vector<std::string> client(const std::string& step) {
    return {"python3", "/tmp/sealed_client.py", step};
  }

  // Another proxy than the lab's own, on the same host, at its public address.
  void scriptProxy(const SOCKS5Script& script) {
    NetworkLab::change("ip -n router route add 203.0.113.2 via 10.2.0.2");
    NetworkLab::in("proxy", [&] {
      scripted = std::make_unique<SOCKS5Server>(script, NetworkLab::proxyPublic, 1081);
    });
    proxy = "203.0.113.2:1081";
  }

  const std::string zkturn = "/tmp/zkturn";
  std::string proxy = "10.2.0.2:1080";
  std::unique_ptr<SOCKS5Server> scripted;
  std::unique_ptr<STUNResponder> stun;
  std::unique_ptr<ChildProcess> internet;
};

TEST_F(RunTest, AProgramSeesTheInternetAsTheProxyDoes) {
  NetworkLab::change("ip -n proxy route add unreachable 192.0.2.0/24");
  const Outcome outcome =
      run(throughProxy({"python3", "/tmp/sealed_client.py", "echo", "refused", "unreachable",
                        "home", "own router", "slow", "name", "long name", "no name", "many"}));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(std::regex_search(
      outcome.output, std::regex("^zkturn: peers see 203.0.113.2, round trip \\d+ ms\n"
                                 "echo: hello\n"
                                 "refused: Connection refused\n"
                                 "unreachable: (No route to host|Network is unreachable)\n"
                                 "home: No route to host\n"
                                 "own router: No route to host\n"
                                 "slow: 6291456\n"
                                 "name: 203.0.113.1\n"
                                 "long name: 203.0.113.1\n"
                                 "no name: .*not known\n"
                                 "many: 400\n"
                                 "zkturn: kept in: \\d+ ")))
      << outcome.output;
  EXPECT_EQ(traffic(), toProxy);
}

// What the same program does outside of a seal is in OutsideOfASealTheyAreSeenToLeak.
TEST_F(RunTest, WhatAProgramTriesIsToldAtTheEnd) {
  std::ofstream("/tmp/go") << "now";
  const Outcome outcome = run(throughProxy({waysOut}, {"--log", "/tmp/log"}));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output.find(" open\n"), std::string::npos) << outcome.output;
  const std::regex told("zkturn: kept in: \\d+ ");
  EXPECT_EQ(
      std::distance(std::sregex_iterator(outcome.output.begin(), outcome.output.end(), told), {}),
      5)
      << outcome.output;
  const std::string log = contentOf("/tmp/log");
  EXPECT_NE(log.find("kept in: broadcast to 255.255.255.255:5353"), std::string::npos) << log;
  EXPECT_NE(log.find("TCP to 203.0.113.1:7000: connected"), std::string::npos) << log;
  EXPECT_EQ(traffic(), toProxy);
}

TEST_F(RunTest, ALoginIsGivenToTheProxyAndNoProgramSeesIt) {
  const std::string passFile = "/tmp/pass";
  std::ofstream(passFile) << "pass-of-the-test\n";
  chmod(passFile.c_str(), 0600);
  ASSERT_EQ(chown(passFile.c_str(), 65534, 65534), 0);
  scriptProxy({.login = SOCKS5Login{"user", "pass-of-the-test"}});
  const std::vector<std::string> login{"--user", "user", "--pass-file", passFile};
  const Outcome outcome = run(throughProxy(client("echo"), login));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.output.find("echo: hello\n"), std::string::npos) << outcome.output;
  const Outcome look = run(throughProxy(
      {"sh", "-c", "grep -l pass-of-the-test /proc/*/environ /proc/*/cmdline; cat /proc/1/maps"},
      login));
  EXPECT_NE(look.output.find("/proc/1/maps: Permission denied"), std::string::npos) << look.output;
  EXPECT_EQ(look.output.find("/environ\n"), std::string::npos) << look.output;
}

// A proxy that is no use is told apart from one that works before the command runs.
TEST_F(RunTest, TheCommandNeverRunsWithoutAProxy) {
  const auto refused = [&](const char* sentence) {
    const Outcome outcome = run(throughProxy({"touch", "/tmp/ran"}, {"--timeout", "1"}));
    EXPECT_EQ(outcome.status, 125);
    EXPECT_TRUE(std::regex_search(outcome.output, std::regex(sentence))) << outcome.output;
    EXPECT_NE(access("/tmp/ran", F_OK), 0);
  };
  proxy = "10.2.0.2:1085";
  refused("cannot be reached.*refused");
  scriptProxy({.login = SOCKS5Login{"user", "secret"}});
  refused("does not let you in.*--user and --pass-file");
  scripted->setScript({.onGreeting = {.action = loopback::SOCKS5Step::Action::silence}});
  refused("does not let you in");
}

TEST_F(RunTest, AProxyWithoutUDPIsWorthAWarning) {
  scriptProxy({.replyCode = 7});
  const Outcome outcome = run(throughProxy(client("echo")));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(std::regex_search(outcome.output, std::regex("does not carry UDP.*\n.*echo: hello")))
      << outcome.output;
}

TEST_F(RunTest, ASealHoldsASecondOne) {
  const std::string outer = proxy;
  scriptProxy({});
  const auto inner = throughProxy(client("echo"));
  proxy = outer;
  const Outcome outcome = run(throughProxy(inner));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.output.find("echo: hello\n"), std::string::npos) << outcome.output;
  EXPECT_GT(scripted->counts().connections, 1U);
  EXPECT_EQ(traffic(), toProxy);
}

TEST_F(RunTest, WhatWasSaidLastArrives) {
  const Outcome outcome = run(throughProxy(client("last words")));
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_TRUE(eventually([] { return contentOf("/tmp/taken") == "3000000"; }))
      << contentOf("/tmp/taken");
}

// How often the chatting program got through, and how often not.
struct Chat {
  int good = 0;
  int bad = 0;
  static Chat now() {
    Chat chat;
    std::ifstream("/tmp/chat") >> chat.good >> chat.bad;
    return chat;
  }
};

TEST_F(RunTest, WhateverHappensOutsideNothingLeaks) {
  std::remove("/tmp/chat");
  const auto running = start(throughProxy(client("chatter")));
  const auto goesOn = [&] {
    const Chat before = Chat::now();
    return eventually([&] { return Chat::now().good > before.good + 2; });
  };
  const auto fails = [&] {
    const Chat before = Chat::now();
    return eventually([&] { return Chat::now().bad > before.bad; });
  };
  ASSERT_TRUE(goesOn()) << contentOf("/tmp/output");
  EXPECT_EQ(traffic(), toProxy);
  {
    SCOPED_TRACE("the proxy is killed and comes back");
    NetworkLab::change("kill -9 -$(cat /run/danted.pid)");
    EXPECT_TRUE(fails());
    NetworkLab::change("ip netns exec proxy danted -D -f /run/danted.conf -p /run/danted.pid");
    EXPECT_TRUE(goesOn());
  }
  {
    SCOPED_TRACE("a VPN takes over the routes");
    NetworkLab::change("route default dev vpn metric 50; trafficTakes vpn");
    EXPECT_TRUE(goesOn());
  }
  EXPECT_EQ(traffic(), toProxy);
  {
    SCOPED_TRACE("the interface goes and comes back");
    NetworkLab::change("ip -n home route del default dev vpn; ip -n home link set lan0 down");
    EXPECT_TRUE(fails());
    NetworkLab::change("ip -n home link set lan0 up; route default via 10.1.0.1 metric 100");
    EXPECT_TRUE(goesOn());
  }
  {
    SCOPED_TRACE("zkturn is killed");
    running->sendSignal(SIGKILL);
    EXPECT_EQ(running->waitExit(patience), -SIGKILL);
    std::this_thread::sleep_for(milliseconds(300));
    const Chat last = Chat::now();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(Chat::now().good + Chat::now().bad, last.good + last.bad);
  }
  EXPECT_EQ(traffic(), toProxy);
}

TEST_F(RunTest, ThreeThousandAtOnceThenOneThatWorks) {
  const Outcome outcome = run(throughProxy(client("thousands")));
  EXPECT_NE(outcome.output.find("\nthousands: works\n"), std::string::npos) << outcome.output;
}

// ---- Browsers ----------------------------------------------------------------------------------

TEST_F(RunTest, ABrowserGetsAProfileOfItsOwn) {
  NetworkLab::change(
      "mkdir -p /tmp/home; chown nobody /tmp/home\n"
      "printf '#!/bin/sh\\necho \"$MOZ_NO_REMOTE $*\"\\n"
      "[ -z \"$HOLD\" ] || sleep 60\\n' >/tmp/firefox\n"
      "chmod 755 /tmp/firefox; cp /tmp/firefox /tmp/chromium\n");
  environment["HOME"] = "/tmp/home";
  const std::string profiles = "/tmp/home/.local/share/zkturn/";
  struct {
    std::vector<std::string> command;
    std::string told;  // by the browser, of its arguments
  } const rows[] = {
      {{"/tmp/firefox", "URL"}, "\n1 --no-remote --profile " + profiles + "firefox URL\n"},
      {{"/tmp/firefox", "-private-window"}, profiles + "firefox -private-window\n"},
      {{"/tmp/firefox", "-P", "mine"}, "\n1 -P mine\n"},
      {{"/tmp/chromium", "URL"}, "\n1 --user-data-dir=" + profiles + "chromium URL\n"},
      {{"/tmp/chromium", "--user-data-dir=/tmp/x"}, "\n1 --user-data-dir=/tmp/x\n"},
  };
  for (const auto& row : rows) {
    const Outcome outcome = run(throughProxy(row.command));
    EXPECT_NE(outcome.output.find(row.told), std::string::npos) << outcome.output;
  }
  // While one seal has the profile, a second one gets another, which goes with it.
  environment["HOLD"] = "1";
  const auto first = start(throughProxy({"/tmp/firefox"}), "/tmp/first");
  ASSERT_TRUE(eventually([] { return contentOf("/tmp/first").find("\n1 ") != std::string::npos; }));
  environment.erase("HOLD");
  const Outcome second = run(throughProxy({"/tmp/firefox"}));
  std::smatch told;
  ASSERT_TRUE(std::regex_search(second.output, told,
                                std::regex("own, (/tmp/zkturn-firefox-\\w+), for this once\n")))
      << second.output;
  EXPECT_FALSE(std::filesystem::exists(told[1].str()));
}

// The distribution's, without one setting, on a page that wants out by all that a page has.
class RealBrowserTest : public RunTest, public testing::WithParamInterface<const char*> {
 protected:
  // What left home, and what was told of it.
  std::pair<Traffic, std::string> visit(std::vector<std::string> command) {
    NetworkLab::change("rm -rf /tmp/home; mkdir -p /tmp/home; chown nobody /tmp/home");
    environment["HOME"] = "/tmp/home";
    std::remove("/tmp/report");
    const auto running = start(command, "/tmp/browser");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (access("/tmp/report", F_OK) != 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(milliseconds(100));
    }
    const std::string report = contentOf("/tmp/report");
    EXPECT_TRUE(std::regex_search(report, std::regex("203\\.0\\.113\\.2 \\d+ typ srflx")))
        << report << contentOf("/tmp/browser");
    running->terminate();
    running->waitExit(patience);
    return {traffic(), contentOf("/tmp/browser")};
  }
};

TEST_P(RealBrowserTest, APageGetsOutByTheProxyOnly) {
  if (loopback::findProgram(GetParam()).empty()) {
    GTEST_SKIP() << "no " << GetParam() << " here";
  }
  const std::vector<std::string> browser{GetParam(), "--headless", "http://203.0.113.1:8000/"};
  const auto [left, told] = visit(throughProxy(browser));
  EXPECT_EQ(left, toProxy);
  EXPECT_TRUE(std::regex_search(told, std::regex("kept in: \\d+ private UDP to 10.1.0.1:3478\n")))
      << told;
  // Outside, with the page in reach.
  NetworkLab::change(
      "ip -n router route add 203.0.113.1 via 10.2.0.2; ip -n internet route add 10.0.0.0/8 via "
      "203.0.113.2; ip netns exec proxy sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'");
  const Traffic leaked = visit({"/usr/bin/env", GetParam(), browser[1], browser[2]}).first;
  for (const char* const kind : {"UDP to 198.51.100.11 by wire", "UDP to 10.1.0.1 by wire"}) {
    EXPECT_TRUE(leaked.contains(kind)) << "this test proves nothing";
  }
}

INSTANTIATE_TEST_SUITE_P(Browsers, RealBrowserTest, testing::Values("firefox-esr", "chromium"),
                         [](const auto& name) { return std::string(name.param).substr(0, 7); });

TEST_F(RunTest, WhatCannotStartWithoutPrivilegesIsRefusedWithAWayOut) {
  NetworkLab::change(
      "printf '#!/bin/sh\\nexec /snap/bin/chromium \"$@\"\\n' >/tmp/chromium-browser\n"
      "printf '#!/bin/sh\\nexec /usr/bin/flatpak run org.example.App\\n' >/tmp/org.example.App\n"
      "chmod 755 /tmp/chromium-browser /tmp/org.example.App\n");
  for (const char* const script : {"/tmp/chromium-browser", "/tmp/org.example.App"}) {
    const Outcome outcome = run(throughProxy({script}));
    EXPECT_EQ(outcome.status, 125);
    EXPECT_NE(outcome.output.find("plain package"), std::string::npos) << outcome.output;
  }
}

}  // namespace
}  // namespace zk::lab
