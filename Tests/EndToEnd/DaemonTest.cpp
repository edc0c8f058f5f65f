// The daemon as its parent process and its clients see it.

#include <atomic>
#include <csignal>
#include <map>

#include <sys/resource.h>

#include "EndToEnd/Rig.h"

namespace zk::test {
namespace {

using Clock = std::chrono::steady_clock;
using DaemonLogTest = PrivateTmpTest;

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

/// The names of its threads but the first.
std::multiset<std::string> threadsOf(const DaemonProcess& daemon) {
  std::multiset<std::string> names;
  for (const auto& entry : fs::directory_iterator(procOf(daemon) / "task")) {
    const std::string name = contentOf(entry.path() / "comm");
    if (name.starts_with("zk.")) {
      names.insert(name.substr(0, name.size() - 1));
    }
  }
  return names;
}

/// A limit of the daemon's, after it has been set if it is to be.
rlimit limitOf(const DaemonProcess& daemon, __rlimit_resource what, const rlimit* changed = {}) {
  rlimit limit{};
  EXPECT_EQ(prlimit(daemon.pid(), what, changed, nullptr), 0);
  EXPECT_EQ(prlimit(daemon.pid(), what, nullptr, &limit), 0);
  return limit;
}

std::string errorLine(const std::string& message) {
  return R"({"status":"error","message":")" + message + "\"}";
}

TEST(DaemonTest, SaysOneLineAndServesUntilItsInputEnds) {
  const auto rig = Rig::ready();
  EXPECT_EQ(rig->daemon.statusLine(),
            "{\"port\":" + std::to_string(rig->port) + ",\"status\":\"ready\"}");
  // Whatever else comes in is thrown away, another configuration included.
  EXPECT_TRUE(rig->daemon.write("{}\nstop\n" + rig->config.line() + std::string(100'000, 'x')));
  EXPECT_FALSE(rig->daemon.readLine(aMoment));
  const auto client = rig->allocated();
  EXPECT_TRUE(echoes(*client, rig->peer, bytes("hello")));
  EXPECT_TRUE(rig->stops());
  EXPECT_FALSE(rig->daemon.readLine(aMoment));
  EXPECT_TRUE(eventually([&] { return rig->proxy.counts().openConnections == 0; }));
}

// ---- Start -------------------------------------------------------------------------------------

TEST(DaemonTest, SaysWhatIsWrongWithItsConfiguration) {
  const std::string good = DaemonConfig().line();
  const std::string unended = good.substr(0, good.size() - 1);
  const std::string empty = errorLine("stdin closed or empty before config was received");
  const std::string undecoded = "failed to decode config JSON: ";
  const std::pair<std::string, std::string> cases[] = {
      {"", empty},
      {"\n" + good, empty},
      {"\r\n" + good, empty},
      {"{\"secret\n",
       errorLine(undecoded + "syntax error at column 9, the end: all of it must be on one line")},
      {"{}\n" + good, errorLine(undecoded + "missing key: proxy")},
      // Good, as are those without a line feed, or with another end.
      {unended, ""},
      {unended + " \r\n", ""}};
  for (const auto& [input, line] : cases) {
    SCOPED_TRACE(input);
    DaemonProcess daemon(daemonBinary());
    daemon.write(input);
    daemon.closeInput();
    const bool isReady = daemon.waitReady(patience).has_value();
    EXPECT_EQ(isReady ? "" : daemon.statusLine(), line);
    EXPECT_EQ(daemon.waitExit(patience), isReady ? 0 : 1);
    EXPECT_FALSE(daemon.readLine(aMoment));
  }
}

TEST(DaemonTest, SaysWhatItLacks) {
  const TemporaryFolder folder;
  // Stacks larger than the address space are one way to have no threads, for root as well.
  for (const auto& [shell, reason] :
       {std::pair("export OPENSSL_CONF=" + folder.write("cnf", noDigests),
                  "the crypto library does not offer MD5 and HMAC-SHA1"),
        {"ulimit -s 200000000000", "Resource temporarily unavailable"}}) {
    if (sanitized && shell.starts_with("ulimit")) {
      continue;  // they want threads of their own
    }
    const auto rig = Rig::startedBy(shell);
    rig->daemon.write(rig->config.line());
    EXPECT_EQ(rig->daemon.readLine(patience),
              errorLine("TURNServer.start() failed: " + std::string(reason)));
    EXPECT_EQ(rig->daemon.waitExit(patience), 1);
  }
}

// Each parent is careless in its own way, and each daemon is as it should be.
TEST(DaemonTest, IsTheSameWhateverItsParentLeavesIt) {
  const TemporaryFolder folder;
  const std::string file = folder.path() / "inherited";
  const std::string pipe = folder.path() / "pipe";
  for (const std::string& shell :
       {"exec 5>" + file + " 19>" + file, std::string("ulimit -S -n 64; ulimit -S -s 512"),
        std::string(sanitized ? ":" : "ulimit -f 0"), std::string("exec 2>&-"),
        std::string("exec perl -e 'use Fcntl; fcntl STDIN, F_SETFL, O_NONBLOCK; exec @ARGV' $0"),
        std::string("exec >&- 2>&-"),
        "mkfifo " + pipe + "; exec 3<>" + pipe + " >" + pipe + "; exec 3>&-"}) {
    SCOPED_TRACE(shell);
    // Its standard error is not to be ours, which the runner of the tests may read.
    const auto rig = Rig::startedBy("exec 2>/dev/null; " + shell);
    rig->daemon.write(rig->config.line().substr(0, 9));
    std::this_thread::sleep_for(milliseconds(20));
    rig->daemon.write(rig->config.line().substr(9));
    rig->port = rig->daemon.waitReady(patience / 10).value_or(0);
    EXPECT_EQ(rig->port == 0, shell.find(" >") != std::string::npos);
    if (rig->port != 0) {
      const auto client = rig->allocated();
      EXPECT_TRUE(echoes(*client, rig->peer, bytes("hello")));
    }
    EXPECT_TRUE(eventually([&] { return threadsOf(rig->daemon).size() == 3; }));
    const auto used = rig->daemon.cpuTime();
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_LT(rig->daemon.cpuTime() - used, milliseconds(20)) << "something spins";
    for (const auto& [number, target] : descriptorsOf(rig->daemon)) {
      const auto info = contentOf(procOf(rig->daemon) / "fdinfo" / std::to_string(number));
      const auto flags = std::stoul(info.substr(info.find("flags:") + 6), nullptr, 8);
      const bool isStream = target.starts_with("pipe:") || target == "/dev/null" || target == pipe;
      EXPECT_TRUE(number <= 2 ? isStream : flags & O_CLOEXEC) << number << " → " << target;
      EXPECT_NE(target, file);
    }
    const rlimit descriptors = limitOf(rig->daemon, RLIMIT_NOFILE);
    EXPECT_EQ(descriptors.rlim_cur, descriptors.rlim_max);
    EXPECT_EQ(limitOf(rig->daemon, RLIMIT_CORE).rlim_max, 0U);
    EXPECT_TRUE(rig->stops());
  }
  EXPECT_EQ(Rig::startedBy("exec <&-")->daemon.waitExit(patience), 1);
}

// ---- Stop --------------------------------------------------------------------------------------

// Right after the ready line, and whatever the parent has had its children do with the signal.
TEST(DaemonTest, StopsInOrderOnSIGTERMOnly) {
  const auto statusAfter = [](int signal, const std::string& shell = {}) {
    DaemonProcess daemon(daemonCommand(shell));
    daemon.write(DaemonConfig().line());
    EXPECT_TRUE(daemon.waitReady(patience));
    daemon.sendSignal(signal);
    return daemon.waitExit(patience);
  };
  for (const char* const shell : {"", "trap '' TERM", "exec env --block-signal=TERM $0"}) {
    for (int round = 0; round < (sanitized ? 5 : 40); ++round) {
      ASSERT_EQ(statusAfter(SIGTERM, shell), 0) << shell << round;
    }
  }
  EXPECT_EQ(statusAfter(SIGINT), -SIGINT);
  EXPECT_EQ(statusAfter(SIGHUP), -SIGHUP);
}

// Its parent is a shell here, killed without a chance to close anything.
TEST(DaemonTest, EndsWithItsParent) {
  DaemonProcess parent(daemonCommand("exec 3> >(exec $0); head -n 1 >&3; read"));
  parent.write(DaemonConfig().line());
  ASSERT_TRUE(parent.waitReady(patience));
  parent.sendSignal(SIGKILL);
  const auto killed = Clock::now();
  EXPECT_FALSE(parent.readLine(patience));  // the end of the daemon's output
  EXPECT_LT(Clock::now() - killed, patience);
}

/// Nothing is waited for. Sanitizers look around before they let go.
void expectQuickStop(Rig& rig) {
  const auto began = Clock::now();
  rig.daemon.terminate();
  EXPECT_EQ(rig.daemon.waitExit(patience), 0);
  EXPECT_LT(Clock::now() - began, milliseconds(sanitized ? 3000 : 300));
}

TEST(DaemonTest, StopsAtOnceUnderLoad) {
  const auto rig = Rig::ready();
  const auto client = rig->allocated();
  std::atomic<bool> ending = false;
  std::thread load([&] {
    while (!ending) {
      client->sendIndication(rig->peer.endpoint(), Bytes(200));
    }
  });
  EXPECT_TRUE(eventually([&] { return rig->peer.received() > 1000; }));
  expectQuickStop(*rig);
  ending = true;
  load.join();
}

// ---- Service -----------------------------------------------------------------------------------

// Clients come and go; while they are there each costs two descriptors and no thread.
TEST(DaemonTest, GivesBackWhatItTook) {
  const auto rig = Rig::ready();
  const auto steady = rig->allocated();
  const std::multiset<std::string> threads{"zk.turn.server", "zk.turnd.debugl", "zk.turnd.stdin-"};
  // The system lists a thread a moment longer than it runs.
  const auto hasItsThreadsOnly = [&] {
    return eventually([&] { return threadsOf(rig->daemon) == threads; });
  };
  EXPECT_TRUE(hasItsThreadsOnly());
  const std::size_t descriptors = rig->daemon.descriptorCount();
  for (int round = 0; round < (sanitized ? 50 : 200); ++round) {
    const auto client = rig->allocated();
    ASSERT_TRUE(echoes(*client, rig->peer, bytes("round")));
    EXPECT_EQ(rig->daemon.descriptorCount(), descriptors + 2) << round;
    ASSERT_TRUE(client->refresh(0).success());
  }
  EXPECT_TRUE(echoes(*steady, rig->peer, bytes("still here")));
  EXPECT_TRUE(hasItsThreadsOnly());
  EXPECT_EQ(rig->daemon.descriptorCount(), descriptors);
  EXPECT_TRUE(eventually([&] { return rig->proxy.counts().openAssociations == 1; }));
}

TEST_F(DaemonLogTest, TellsNobodyItsSecrets) {
  SOCKS5Script script{.login = SOCKS5Login{"proxy-user-3b1f", "proxy-pass-77ac"}};
  Rig rig(script);
  rig.config.credential = "turn-secret-91d0";
  rig.begin();
  EXPECT_TRUE(rig.allocated());
  script.login = {"somebody", "else"};
  rig.proxy.setScript(script);
  EXPECT_EQ(rig.client()->allocate().errorCode(), 500);
  EXPECT_TRUE(rig.stops());

  std::string told = rig.daemon.statusLine();
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    told += contentOf(entry.path());
  }
  EXPECT_NE(told.find("relay OPEN FAILED both rungs"), std::string::npos);
  for (const auto& secret :
       {rig.config.credential, rig.config.proxyUser, rig.config.proxyPassword}) {
    EXPECT_EQ(told.find(secret), std::string::npos) << secret;
  }
}

}  // namespace
}  // namespace zk::test
