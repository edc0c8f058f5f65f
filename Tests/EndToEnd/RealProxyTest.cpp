// The daemon with SOCKS5 servers that other people wrote, each started here on the loopback.

#include <csignal>
#include <fstream>
#include <functional>
#include <iostream>

#include <sys/socket.h>
#include <sys/wait.h>

#include "EndToEnd/Rig.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"

namespace zk::test {
namespace {

constexpr const char* user = "zkturnd-test";
constexpr const char* password = "wonderful-proxy";
// The same as a line of /etc/shadow has it.
constexpr const char* hashedPassword =
    "$6$zkturndtest$BoO6OARBBGfNrwzUuG6lSQTRah7anvt6hA/GhlrIZyTiM"
    "tdgFAyYyVqDTOHqyHKM00HDHyGbtJ/Cc7undNaWs0";

/// The path of an installed program; empty when there is none.
std::string programPath(const std::string& name) {
  for (const char* const folder :
       {"/usr/bin/", "/usr/sbin/", "/usr/local/bin/", "/usr/local/sbin/"}) {
    if (access((folder + name).c_str(), X_OK) == 0) {
      return folder + name;
    }
  }
  return {};
}

/// A port that is free for TCP and UDP on the loopback, or was a moment ago.
std::uint16_t freePort() {
  while (true) {
    const int stream = openSocket(AF_INET, SOCK_STREAM, 0);
    const int datagram = openUDPSocket();
    const bool bound = bindSocket(stream, socketAddress("127.0.0.1", 0));
    const std::uint16_t port = portNumber(localAddress(stream));
    const bool both = bound && bindSocket(datagram, socketAddress("127.0.0.1", port));
    closeSocket(stream);
    closeSocket(datagram);
    if (both) {
      return port;
    }
  }
}

bool accepts(std::uint16_t port) {
  const int socket = openSocket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = socketAddress("127.0.0.1", port);
  const bool connected =
      connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  closeSocket(socket);
  return connected;
}

/// A server and whatever processes it starts; all of them end with this.
class Server {
 public:
  Server(std::vector<std::string> command, const fs::path& output) {
    std::vector<char*> arguments;
    for (std::string& word : command) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      const int log = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(log, STDOUT_FILENO);
      dup2(log, STDERR_FILENO);
      execv(arguments[0], arguments.data());
      _exit(127);
    }
    setpgid(pid_, pid_);
  }
  ~Server() {
    kill(-pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

 private:
  pid_t pid_;
};

class RealProxyTest : public testing::Test {
 protected:
  /// False when the test has to be skipped.
  bool installed(const std::string& program) {
    path_ = programPath(program);
    return !path_.empty();
  }

  void write(const std::string& file, const std::string& text) const {
    std::ofstream(folder.path() / file) << text;
  }

  void start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), path_);
    servers_.push_back(std::make_unique<Server>(arguments, folder.path() / "output"));
  }

  /// Relays through the proxy on `port`, and reports how it went.
  void expectService(const std::string& name, bool withLogin) {
    ASSERT_TRUE(becomesTrue([&] { return accepts(port); })) << contentOf(folder.path() / "output");
    STUNResponder stun({.mappedIP = egressIP});
    EchoPeer peer;
    DaemonProcess daemon(daemonBinary(), {{"ZK_STUN_IPS", stun.target()}});
    DaemonConfig config{.proxyPort = port};
    if (withLogin) {
      config.proxyUser = user;
      config.proxyPassword = password;
    }
    daemon.write(config.line());
    const auto turnPort = daemon.waitReady(patience);
    ASSERT_TRUE(turnPort);
    TURNClient client(*turnPort);
    client.setTimeout(longPatience);
    const auto answer = client.allocate();
    ASSERT_TRUE(answer.success()) << answer.errorCode() << contentOf(folder.path() / "output");
    EXPECT_EQ(answer.relayedAddress()->ip, egressIP);
    EXPECT_GT(stun.requests(), 0U);
    ASSERT_TRUE(client.bindChannel(0x4000, {peer.ip(), peer.port()}).success());
    EchoPeer other;
    TURNClient second(*turnPort);
    ASSERT_TRUE(second.allocate().success());

    constexpr int rounds = 200;
    int lost = 0;
    const auto began = std::chrono::steady_clock::now();
    for (int round = 0; round < rounds; ++round) {
      const Bytes payload(static_cast<std::size_t>(1 + round * 6),
                          static_cast<std::uint8_t>(round));
      lost += !echoes(client, peer, payload, 0x4000, milliseconds(1000));
      lost += !echoes(client, other, payload, {}, milliseconds(1000));
      lost += !echoes(second, peer, payload, {}, milliseconds(1000));
    }
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - began;
    std::cout << name << ": " << 3 * rounds << " round trips, " << lost << " lost, "
              << static_cast<int>(took.count() / (3 * rounds)) << " us each\n";
    RecordProperty("lost", lost);
    EXPECT_LE(lost, 3 * rounds / 100);

    daemon.closeInput();
    EXPECT_EQ(daemon.waitExit(patience), 0);
  }

  void expectRefusal(const std::string& wrongPassword) const {
    STUNResponder stun;
    DaemonProcess daemon(daemonBinary(), {{"ZK_STUN_IPS", stun.target()}});
    daemon.write(
        DaemonConfig{.proxyPort = port, .proxyUser = user, .proxyPassword = wrongPassword}.line());
    TURNClient client(daemon.waitReady(patience).value_or(0));
    client.setTimeout(longPatience);
    EXPECT_EQ(client.allocate().errorCode(), 500);
  }

  const std::uint16_t port = freePort();
  TemporaryFolder folder;

 private:
  std::string path_;
  std::vector<std::unique_ptr<Server>> servers_;
};

std::string danteConfiguration(std::uint16_t port, const std::string& method) {
  return "logoutput: stdout\n"
         "internal: 127.0.0.1 port = " +
         std::to_string(port) +
         "\n"
         "external: 127.0.0.1\n"
         "clientmethod: none\n"
         "socksmethod: " +
         method +
         "\n"
         "user.privileged: root\n"
         "user.unprivileged: nobody\n"
         "client pass { from: 127.0.0.1/32 to: 127.0.0.1/32 }\n"
         "socks pass { from: 127.0.0.1/32 to: 0.0.0.0/0 command: udpassociate }\n"
         "socks pass { from: 0.0.0.0/0 to: 127.0.0.1/32 command: udpreply }\n";
}

TEST_F(RealProxyTest, Dante) {
  if (!installed("danted")) {
    GTEST_SKIP() << "danted is not installed (Debian: dante-server)";
  }
  if (geteuid() != 0) {
    GTEST_SKIP() << "danted needs root";
  }
  write("danted.conf", danteConfiguration(port, "none"));
  start({"-f", folder.path() / "danted.conf", "-p", folder.path() / "pid"});
  expectService("danted", false);
}

// It knows the users of the machine only. This test adds one that nobody else sees.
TEST_F(RealProxyTest, DanteWithLogin) {
  if (!installed("danted")) {
    GTEST_SKIP() << "danted is not installed (Debian: dante-server)";
  }
  const auto addLine = [&](const std::string& file, const std::string& line) {
    const std::string copy = folder.path() / fs::path(file).filename();
    std::ofstream(copy) << contentOf(file) << line << '\n';
    return mount(copy.c_str(), file.c_str(), nullptr, MS_BIND, nullptr) == 0;
  };
  if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      !addLine("/etc/passwd", std::string(user) + ":x:54321:54321::/nonexistent:/bin/false") ||
      !addLine("/etc/shadow", std::string(user) + ":" + hashedPassword + ":19000:0:99999:7:::")) {
    GTEST_SKIP() << "needs root, for a user that only danted sees";
  }
  write("danted.conf", danteConfiguration(port, "username"));
  start({"-f", folder.path() / "danted.conf", "-p", folder.path() / "pid"});
  expectService("danted with a login", true);
  expectRefusal("wrong");
  umount("/etc/shadow");
  umount("/etc/passwd");
}

std::string v2rayConfiguration(std::uint16_t port, bool withLogin) {
  const std::string settings = withLogin
                                   ? R"("auth":"password","accounts":[{"user":")" +
                                         std::string(user) + R"(","pass":")" + password + R"("}])"
                                   : R"("auth":"noauth")";
  return R"({"log":{"loglevel":"warning"},"inbounds":[{"listen":"127.0.0.1","port":)" +
         std::to_string(port) + R"(,"protocol":"socks","settings":{"udp":true,"ip":"127.0.0.1",)" +
         settings + R"(}}],"outbounds":[{"protocol":"freedom"}]})";
}

TEST_F(RealProxyTest, V2Ray) {
  if (!installed("v2ray")) {
    GTEST_SKIP() << "v2ray is not installed";
  }
  write("v2ray.json", v2rayConfiguration(port, false));
  start({"-config", folder.path() / "v2ray.json"});
  expectService("v2ray", false);
}

TEST_F(RealProxyTest, V2RayWithLogin) {
  if (!installed("v2ray")) {
    GTEST_SKIP() << "v2ray is not installed";
  }
  write("v2ray.json", v2rayConfiguration(port, true));
  start({"-config", folder.path() / "v2ray.json"});
  expectService("v2ray with a login", true);
  expectRefusal("wrong");
}

TEST_F(RealProxyTest, Shadowsocks) {
  const std::string remote = std::to_string(freePort());
  const std::vector<std::string> shared{"-s",     "127.0.0.1", "-p",          remote, "-k",
                                        "secret", "-m",        "aes-256-gcm", "-u"};
  if (!installed("ss-server")) {
    GTEST_SKIP() << "ss-server is not installed (Debian: shadowsocks-libev)";
  }
  start(shared);
  if (!installed("ss-local")) {
    GTEST_SKIP() << "ss-local is not installed (Debian: shadowsocks-libev)";
  }
  auto arguments = shared;
  arguments.insert(arguments.end(), {"-l", std::to_string(port), "-b", "127.0.0.1"});
  start(arguments);
  expectService("ss-local with ss-server", false);
}

}  // namespace
}  // namespace zk::test
