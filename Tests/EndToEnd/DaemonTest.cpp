// The daemon as its parent process and its clients see it.

#include <csignal>
#include <map>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "EndToEnd/Rig.h"

namespace zk::test {
namespace {

fs::path procOf(const DaemonProcess& daemon) {
  return "/proc/" + std::to_string(daemon.pid());
}

/// What its descriptors lead to.
std::map<int, std::string> descriptorsOf(const DaemonProcess& daemon) {
  std::map<int, std::string> links;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator(procOf(daemon) / "fd")) {
    links[std::stoi(entry.path().filename())] = fs::read_symlink(entry.path(), gone);
  }
  return links;
}

std::multiset<std::string> threadNamesOf(const DaemonProcess& daemon) {
  std::multiset<std::string> names;
  for (const auto& entry : fs::directory_iterator(procOf(daemon) / "task")) {
    std::string name = contentOf(entry.path() / "comm");
    name.pop_back();
    if (name.starts_with("zk.")) {
      names.insert(name);
    }
  }
  return names;
}

TEST(DaemonTest, SaysOneLineAndServesUntilItsInputEnds) {
  Rig rig;
  rig.begin();
  EXPECT_EQ(rig.daemon.statusLine(),
            "{\"port\":" + std::to_string(rig.port) + ",\"status\":\"ready\"}");
  // Whatever else comes in is thrown away, another configuration included.
  EXPECT_TRUE(rig.daemon.write("{}\nstop\n" + rig.config.line() + std::string(100'000, 'x')));
  EXPECT_FALSE(rig.daemon.readLine(aMoment));
  const auto client = rig.allocated();
  EXPECT_TRUE(echoes(*client, rig.peer, bytes("hello")));
  EXPECT_TRUE(rig.stops());
  EXPECT_FALSE(rig.daemon.readLine(aMoment));
  EXPECT_EQ(rig.proxy.counts().openConnections, 0U);
}

TEST(DaemonTest, EndsByItselfWhenNothingFollowsTheConfiguration) {
  for (const char* const end : {"\n", ""}) {
    Rig rig;
    std::string line = rig.config.line();
    line.pop_back();
    rig.daemon.write(line + end);
    rig.daemon.closeInput();
    EXPECT_TRUE(rig.daemon.waitReady(patience));
    EXPECT_EQ(rig.daemon.waitExit(patience), 0);
  }
}

TEST(DaemonTest, StopsInOrderOnSIGTERMOnly) {
  const auto rig = Rig::ready();
  const auto client = rig->allocated();
  rig->daemon.terminate();
  EXPECT_EQ(rig->daemon.waitExit(milliseconds(sanitized ? 5000 : 1000)), 0);

  for (const int signal : {SIGINT, SIGHUP}) {
    const auto other = Rig::ready();
    other->daemon.sendSignal(signal);
    EXPECT_EQ(other->daemon.waitExit(patience), -signal);
  }
}

TEST(DaemonTest, ReportsWhatIsWrongWithItsConfiguration) {
  const std::string line = DaemonConfig().line();
  const std::string noRealm = R"({"proxy":{"host":"h","port":1,"user":"","pass":""},)"
                              R"("username":"u","credential":"top-secret"})"
                              "\n";
  const std::string decoding = "failed to decode config JSON: ";
  for (const auto& [input, message] : std::map<std::string, std::string>{
           {"", "stdin closed or empty before config was received"},
           {"\n" + line, "stdin closed or empty before config was received"},
           {"  \n", decoding},
           {"{\"top-secret\n", decoding},
           {"[" + line, decoding},
           {noRealm, decoding + "missing key: realm"}}) {
    DaemonProcess daemon(daemonBinary());
    daemon.write(input);
    daemon.closeInput();
    const std::string status = daemon.readLine(patience).value_or("");
    EXPECT_TRUE(status.starts_with("{\"status\":\"error\",\"message\":\"" + message)) << status;
    EXPECT_TRUE(status.ends_with("\"}")) << status;
    EXPECT_EQ(status.find("top-secret"), std::string::npos) << status;
    EXPECT_EQ(daemon.waitExit(patience), 1);
    EXPECT_FALSE(daemon.readLine(aMoment));
  }
}

TEST(DaemonTest, ReportsThatItCannotStart) {
  if (sanitized) {
    GTEST_SKIP() << "sanitizers need descriptors for their own checks";
  }
  const TemporaryFolder folder;
  // One descriptor to load libraries with and to log with, none for the socket. What the runner of
  // the tests leaves open goes first.
  DaemonProcess daemon(
      folder.script("exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ulimit -n 4; exec " ZK_DAEMON));
  daemon.write(DaemonConfig().line());
  EXPECT_EQ(daemon.readLine(patience),
            "{\"status\":\"error\",\"message\":\"TURNServer.start() failed: socket: Too many open "
            "files\"}");
  EXPECT_EQ(daemon.waitExit(patience), 1);
}

TEST(DaemonTest, StandsClosedStandardStreams) {
  const TemporaryFolder folder;
  const auto started = [&](const std::string& redirections) {
    // Its standard error is not to be ours, which the next test program's runner may read.
    auto daemon = std::make_unique<DaemonProcess>(
        folder.script("exec 2>/dev/null; exec " ZK_DAEMON " " + redirections));
    daemon->write(DaemonConfig().line());
    return daemon;
  };
  const auto withoutInput = started("<&-");
  EXPECT_EQ(withoutInput->readLine(patience),
            "{\"status\":\"error\",\"message\":\"stdin closed or empty before config was "
            "received\"}");
  EXPECT_EQ(withoutInput->waitExit(patience), 1);

  const auto withoutError = started("2>&-");
  EXPECT_TRUE(withoutError->waitReady(patience));
  EXPECT_EQ(descriptorsOf(*withoutError)[2], "/dev/null");
  withoutError->closeInput();
  EXPECT_EQ(withoutError->waitExit(patience), 0);

  // Without its output nobody knows the port, but it must not write into its own socket or log.
  const auto withoutOutput = started(">&- 2>&-");
  EXPECT_FALSE(withoutOutput->readLine(aMoment));
  EXPECT_TRUE(becomesTrue([&] {
    auto links = descriptorsOf(*withoutOutput);
    return links.size() > 4 && links[1] == "/dev/null" && links[2] == "/dev/null";
  }));
  withoutOutput->closeInput();
  EXPECT_EQ(withoutOutput->waitExit(patience), 0);
}

TEST(DaemonTest, DoesNotMindWhenItsOutputIsNoLongerRead) {
  Rig rig;
  const TemporaryFolder folder;
  DaemonProcess daemon(folder.script("exec 3>&1; exec " ZK_DAEMON " > >(head -n 1 >&3)"),
                       {{"ZK_STUN_IPS", rig.stun.target()}});
  daemon.write(rig.config.line());
  const auto port = daemon.waitReady(patience);
  ASSERT_TRUE(port);
  TURNClient client(*port);
  EXPECT_TRUE(client.allocate().success());
  EXPECT_TRUE(echoes(client, rig.peer, bytes("hello")));
  daemon.closeInput();
  EXPECT_EQ(daemon.waitExit(patience), 0);
}

TEST(DaemonTest, KeepsNoDescriptorOfItsParentAndLeavesNoneToAChild) {
  Rig rig;
  const TemporaryFolder folder;
  const std::string inherited = folder.path() / "inherited";
  DaemonProcess daemon(
      folder.script("exec 5>" + inherited + " 19>" + inherited + "; exec " ZK_DAEMON),
      {{"ZK_STUN_IPS", rig.stun.target()}});
  daemon.write(rig.config.line());
  const auto port = daemon.waitReady(patience);
  ASSERT_TRUE(port);
  TURNClient client(*port);
  ASSERT_TRUE(client.allocate().success());
  ASSERT_TRUE(echoes(client, rig.peer, bytes("hello")));
  const auto links = descriptorsOf(daemon);
  EXPECT_GE(links.size(), 8U);  // three streams, two logs, the server's socket, the relay's two
  for (const auto& [number, target] : links) {
    EXPECT_NE(target, inherited) << number;
    if (number > 2) {
      std::ifstream info(procOf(daemon) / "fdinfo" / std::to_string(number));
      std::string word;
      while (info >> word && word != "flags:") {
      }
      info >> word;
      EXPECT_TRUE(std::stoul(word, nullptr, 8) & O_CLOEXEC) << number << " → " << target;
    }
  }
}

TEST(DaemonTest, MakesDoWithSmallLimits) {
  const TemporaryFolder folder;
  DaemonProcess daemon(folder.script("ulimit -S -n 64; ulimit -S -s 512; exec " ZK_DAEMON));
  daemon.write(DaemonConfig().line());
  const auto port = daemon.waitReady(patience);
  ASSERT_TRUE(port);
  rlimit limit{};
  ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
  EXPECT_GT(limit.rlim_max, 64U);
  EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
  // Its threads come by the stack they need.
  TURNClient client(*port);
  EXPECT_EQ(client.allocate().errorCode(), 500);
}

TEST(DaemonTest, NamesItsThreads) {
  const auto rig = Rig::ready();
  const std::multiset<std::string> idle{"zk.turn.server", "zk.turn.server.", "zk.turnd.debugl",
                                        "zk.turnd.stdin-"};
  const auto hasThreads = [&](const std::multiset<std::string>& names) {  // they name themselves
    return becomesTrue([&] { return threadNamesOf(rig->daemon) == names; });
  };
  EXPECT_TRUE(hasThreads(idle));
  const auto one = rig->allocated();
  const auto two = rig->allocated();
  auto serving = idle;
  serving.insert({"zk.socks5relay.", "zk.socks5relay."});
  EXPECT_TRUE(hasThreads(serving));
}

TEST(DaemonTest, RelaysInBothFormsBothWays) {
  const auto rig = Rig::ready();
  const auto client = rig->client();
  const TURNAnswer answer = client->allocate();
  ASSERT_TRUE(answer.success());
  // The face is what STUN saw; the port is the association's.
  EXPECT_EQ(answer.relayedAddress()->ip, egressIP);
  EXPECT_EQ(answer.mappedAddress()->port, client->localPort());
  EchoPeer second;
  ASSERT_TRUE(client->bindChannel(0x4000, {second.ip(), second.port()}).success());
  for (const std::size_t size : {0U, 1U, 1200U, 9000U, 65'000U}) {
    const Bytes payload(size, static_cast<std::uint8_t>(size));
    EXPECT_TRUE(echoes(*client, rig->peer, payload)) << size;
    EXPECT_TRUE(echoes(*client, second, payload, 0x4000)) << size;
  }
  // Nobody asked for this one: a peer that speaks first.
  const auto egress = rig->proxy.egressAddress(0);
  ASSERT_TRUE(egress);
  EchoPeer stranger;
  ASSERT_TRUE(stranger.send(*egress, bytes("knock")));
  const auto data = client->receiveData(patience);
  ASSERT_TRUE(data && data->peer);
  EXPECT_EQ(data->peer->port, stranger.port());
  EXPECT_EQ(data->payload, bytes("knock"));
}

TEST(DaemonTest, GivesBackWhatItTook) {
  const auto rig = Rig::ready();
  const auto steady = rig->allocated();
  ASSERT_TRUE(echoes(*steady, rig->peer, bytes("first")));
  const std::size_t descriptors = rig->daemon.descriptorCount();
  const std::size_t threads = rig->daemon.threadCount();
  // The system lists a thread a moment longer than it takes to join it.
  const auto hasThreads = [&](std::size_t count) {
    return becomesTrue([&] { return rig->daemon.threadCount() == count; });
  };
  const int rounds = sanitized ? 50 : 200;
  for (int round = 0; round < rounds; ++round) {
    const auto client = rig->allocated();
    ASSERT_TRUE(echoes(*client, rig->peer, bytes("round")));
    EXPECT_EQ(rig->daemon.descriptorCount(), descriptors + 2) << round;
    EXPECT_TRUE(hasThreads(threads + 1)) << round;
    ASSERT_TRUE(client->refresh(0).success());
    ASSERT_TRUE(echoes(*steady, rig->peer, bytes("still here")));
  }
  EXPECT_EQ(rig->daemon.descriptorCount(), descriptors);
  EXPECT_TRUE(hasThreads(threads));
  EXPECT_EQ(rig->proxy.counts().openAssociations, 1U);
}

TEST(DaemonTest, TellsNobodyItsSecrets) {
  const PrivateTmp tmp(4096);
  if (!tmp.mounted()) {
    GTEST_SKIP() << "needs root, for log files of its own";
  }
  SOCKS5Script script;
  script.login = {"proxy-user-3b1f", "proxy-pass-77ac"};
  Rig rig(script);
  rig.config.credential = "turn-secret-91d0";
  rig.begin();
  const auto client = rig.allocated();
  ASSERT_TRUE(echoes(*client, rig.peer, bytes("hello")));
  TURNClient wrong(rig.port, {.username = "mallory", .password = "guess"});
  EXPECT_EQ(wrong.allocate().errorCode(), 401);
  script.login = {"somebody", "else"};
  rig.proxy.setScript(script);
  EXPECT_EQ(rig.client()->allocate().errorCode(), 500);
  EXPECT_TRUE(rig.stops());

  std::string told = rig.daemon.statusLine();
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    told += contentOf(entry.path());
    ++files;
  }
  EXPECT_EQ(files, 3U);
  EXPECT_NE(told.find("relay OPEN FAILED both rungs"), std::string::npos);
  EXPECT_NE(told.find("zkturnd start proxy=127.0.0.1:" + std::to_string(rig.proxy.port()) +
                      " realm=zkturnd.test user=alice\n"),
            std::string::npos);
  for (const std::string& secret :
       {rig.config.credential, rig.config.proxyUser, rig.config.proxyPassword}) {
    EXPECT_EQ(told.find(secret), std::string::npos) << secret;
  }
}

// Killed, not closed: its end of the daemon's input goes with the parent.
TEST(DaemonTest, EndsWithItsParent) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t parent = fork();
  ASSERT_GE(parent, 0);
  if (parent == 0) {
    DaemonProcess daemon(daemonBinary());
    daemon.write(DaemonConfig().line());
    const pid_t pid = daemon.waitReady(patience) ? daemon.pid() : 0;
    if (write(ends[1], &pid, sizeof pid) == sizeof pid) {
      pause();
    }
    _exit(1);
  }
  pid_t daemon = 0;
  ASSERT_EQ(read(ends[0], &daemon, sizeof daemon), static_cast<ssize_t>(sizeof daemon));
  ASSERT_GT(daemon, 0);
  ASSERT_EQ(kill(parent, SIGKILL), 0);
  ASSERT_EQ(waitpid(parent, nullptr, 0), parent);
  int status = -1;
  for (int waited = 0; waited < 500 && waitpid(daemon, &status, WNOHANG) == 0; ++waited) {
    usleep(10'000);
  }
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zk::test
