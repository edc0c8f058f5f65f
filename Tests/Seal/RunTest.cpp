// What people run: a seal, what carries for it, and a proxy.

#include <csignal>
#include <iterator>

#include "Seal/RunLab.h"

namespace zk::lab {
namespace {

TEST_F(RunTest, AProgramSeesTheInternetAsTheProxyDoes) {
  NetworkLab::change("ip -n proxy route add unreachable 192.0.2.0/24");
  const Outcome outcome = run(
      throughProxy({"python3", "/tmp/sealed_client.py", "echo", "refused", "unreachable", "home",
                    "own router", "slow", "name", "long name", "no name", "datagrams"}));
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
                                 "datagrams: peer 198.51.100.11\n"
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

// By UDP the relay is still being opened when the program is gone.
TEST_F(RunTest, WhatWasSaidLastArrives) {
  run(throughProxy({"true"}));
  const std::size_t ofTheLook = stun->requests();
  const Outcome outcome = run(throughProxy(client("last words")));
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_TRUE(eventually([] { return contentOf("/tmp/taken") == "3000000"; }))
      << contentOf("/tmp/taken");
  EXPECT_TRUE(eventually([&] { return stun->requests() == 2 * ofTheLook + 1; }));
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
    NetworkLab::stopProxy();
    EXPECT_TRUE(fails());
    NetworkLab::startProxy();
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
    // It is up for some time before it has a route.
    NetworkLab::change(
        "ip -n home link set lan0 up; sleep 0.7; route default via 10.1.0.1 metric 100");
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

}  // namespace
}  // namespace zk::lab
