#include "Contestants.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "Loopback/DaemonConfig.h"
#include "Loopback/DaemonProcess.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/TURNClient.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk::bench {
namespace {

using namespace std::chrono_literals;

// The peer that clients name. It is never sent to: the far side sends back what it gets.
constexpr const char* peerIP = "203.0.113.7";
constexpr std::uint16_t peerPort = 3478;
constexpr std::uint16_t channel = 0x4000;

// Connects, and makes the socket block: the load is driven by one thread that waits.
void connectTo(int socket, std::uint16_t port) {
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) & ~O_NONBLOCK);
  const sockaddr_in address = socketAddress("127.0.0.1", port);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("connect: " + errorText(errno));
  }
}

int connectedSocket(std::uint16_t port) {
  const int fd = openUDPSocket();
  connectTo(fd, port);
  return fd;
}

class Floor final : public Contestant {
 public:
  explicit Floor(std::uint16_t farPort)
      : child_({"/proc/self/exe", "--floor", std::to_string(farPort)}, true) {
    name_ = "floor";
    pid_ = child_.pid();
    const auto port = static_cast<std::uint16_t>(std::stoi(child_.readLine()));
    endpoints_.push_back({connectedSocket(port), [](std::size_t n) { return Bytes(n); }, 0, 0});
  }

 private:
  ChildProcess child_;
};

class Daemon final : public Contestant {
 public:
  Daemon(std::uint16_t farPort, DaemonForm form, unsigned clients, const std::string& binary)
      : daemon_(binary.empty() ? ZK_DAEMON : binary, {{"ZK_STUN_IPS", "127.0.0.1:3478"}}) {
    name_ = (binary.empty() ? "zkturnd" : binary) +
            (form == DaemonForm::channelData ? ", ChannelData" : ", indications");
    pid_ = daemon_.pid();
    loopback::SOCKS5Script script;
    script.announcePort = farPort;
    proxy_.setScript(script);
    loopback::DaemonConfig config;
    config.proxyPort = proxy_.port();
    daemon_.write(config.line());
    const auto port = daemon_.waitReady(5s);
    if (!port) {
      throw std::runtime_error("the daemon did not start: " + daemon_.statusLine());
    }
    for (unsigned i = 0; i < clients; ++i) {
      clients_.push_back(std::make_unique<loopback::TURNClient>(*port));
      loopback::TURNClient& client = *clients_.back();
      if (!client.allocate().success() ||
          (form == DaemonForm::channelData &&
           !client.bindChannel(channel, {peerIP, peerPort}).success())) {
        throw std::runtime_error("the daemon gave no relay");
      }
      connectTo(client.socket(), *port);
      endpoints_.push_back(form == DaemonForm::channelData ? channelEndpoint(client.socket())
                                                           : indicationEndpoint(client.socket()));
    }
  }

 private:
  static Endpoint channelEndpoint(int socket) {
    return {socket,
            [](std::size_t n) {
              Bytes frame(4 + n);
              writeUInt16(&frame[0], channel);
              writeUInt16(&frame[2], static_cast<std::uint16_t>(n));
              return frame;
            },
            4, 4};
  }

  static Endpoint indicationEndpoint(int socket) {
    // Header, XOR-PEER-ADDRESS with its 8 octets, the header of DATA: both ways alike.
    constexpr std::size_t payloadAt = 20 + 12 + 4;
    return {socket,
            [](std::size_t n) {
              TURNMessage message(TURNMethod::send, TURNClass::indication, {});
              message.append(TURNAttr::xorPeerAddress,
                             *TURNAttributes::encodeXorAddress(peerIP, peerPort));
              message.append(TURNAttr::data, Bytes(n));
              return message.encode();
            },
            payloadAt, payloadAt};
  }

  loopback::SOCKS5Server proxy_;
  loopback::DaemonProcess daemon_;
  std::vector<std::unique_ptr<loopback::TURNClient>> clients_;
};

// A free TCP port. Somebody else may take it before the server does; then the benchmark ends with a
// message, and is run again.
std::uint16_t freePort() {
  const int fd = openSocket(AF_INET, SOCK_STREAM, 0);
  bindSocket(fd, socketAddress("127.0.0.1", 0));
  const std::uint16_t port = portNumber(localAddress(fd));
  closeSocket(fd);
  return port;
}

// A SOCKS5 server of the distribution's, started with a configuration of ours.
class Proxy final : public Contestant {
 public:
  struct Program {
    std::string name;
    std::vector<std::string> argv;
    std::vector<std::string> helperArgv;  // a second process that is not measured
    std::uint16_t port = 0;
  };

  Proxy(const Program& program, std::uint16_t farPort) : child_(program.argv) {
    if (!program.helperArgv.empty()) {
      helper_.emplace(program.helperArgv);
    }
    name_ = program.name;
    isProxy_ = true;
    pid_ = child_.pid();
    for (int attempt = 0; !relay_; ++attempt) {
      try {
        auto control = std::make_unique<SOCKS5Control>("127.0.0.1", program.port, std::nullopt,
                                                       std::nullopt, 2.0);
        control->connect();
        relay_ = control->performHandshakeAndUDPAssociate();
        control_ = std::move(control);
      } catch (const SOCKS5Error& error) {
        if (attempt == 50) {
          throw std::runtime_error(program.name + ": " + error.description());
        }
        std::this_thread::sleep_for(100ms);
      }
    }
    endpoints_.push_back(
        {connectedSocket(relay_->relayPort),
         [farPort](std::size_t n) { return SOCKS5UDPFrame::wrap(Bytes(n), "127.0.0.1", farPort); },
         SOCKS5UDPFrame::headerSize, SOCKS5UDPFrame::headerSize});
  }

 private:
  ChildProcess child_;
  std::optional<ChildProcess> helper_;
  std::unique_ptr<SOCKS5Control> control_;
  std::optional<SOCKS5Control::RelayEndpoint> relay_;
};

// A folder for the servers' configuration files, gone with the program.
const std::string& workFolder() {
  static const struct Folder {
    std::string path;
    Folder() {
      std::string name = "/tmp/zkturnd-bench-XXXXXX";
      path = mkdtemp(name.data());
    }
    ~Folder() { std::filesystem::remove_all(path); }
  } folder;
  return folder.path;
}

std::string writeFile(const std::string& name, const std::string& text) {
  std::string path = workFolder() + "/" + name;
  std::ofstream(path) << text;
  return path;
}

Proxy::Program dante() {
  const std::uint16_t port = freePort();
  const std::string file = writeFile(
      "danted.conf",
      fmt::format("logoutput: /dev/null\ninternal: 127.0.0.1 port = {}\nexternal: 127.0.0.1\n"
                  "clientmethod: none\nsocksmethod: none\nuser.privileged: root\n"
                  "user.unprivileged: nobody\n"
                  "client pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 }}\n"
                  "socks pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 }}\n",
                  port));
  return {"dante-server", {findProgram("danted"), "-f", file}, {}, port};
}

Proxy::Program v2ray() {
  const std::uint16_t port = freePort();
  const std::string file = writeFile(
      "v2ray.json",
      fmt::format(R"({{"log":{{"loglevel":"none"}},"inbounds":[{{"port":{},"listen":"127.0.0.1",)"
                  R"("protocol":"socks","settings":{{"auth":"noauth","udp":true,)"
                  R"("ip":"127.0.0.1"}}}}],"outbounds":[{{"protocol":"freedom"}}]}})",
                  port));
  return {"v2ray", {findProgram("v2ray"), "-config", file}, {}, port};
}

Proxy::Program shadowsocks() {
  const std::uint16_t port = freePort();
  const std::uint16_t serverPort = freePort();
  const auto common = [&](const std::string& program) {
    return std::vector<std::string>{
        findProgram(program), "-s", "127.0.0.1",   "-p", std::to_string(serverPort), "-k",
        "benchmark",          "-m", "aes-128-gcm", "-u"};
  };
  auto local = common("ss-local");
  local.insert(local.end(), {"-b", "127.0.0.1", "-l", std::to_string(port)});
  return {"ss-local", std::move(local), common("ss-server"), port};
}

}  // namespace

std::unique_ptr<Contestant> makeFloor(std::uint16_t farPort) {
  return std::make_unique<Floor>(farPort);
}

std::unique_ptr<Contestant> makeDaemon(std::uint16_t farPort, DaemonForm form, unsigned clients,
                                       const std::string& binary) {
  return std::make_unique<Daemon>(farPort, form, clients, binary);
}

std::vector<std::unique_ptr<Contestant>> makeProxies(std::uint16_t farPort) {
  std::vector<std::unique_ptr<Contestant>> proxies;
  const auto add = [&](const char* program, const std::function<Proxy::Program()>& make) {
    if (findProgram(program).empty()) {
      fmt::print(stderr, "{} is not installed and left out\n", program);
      return;
    }
    try {
      proxies.push_back(std::make_unique<Proxy>(make(), farPort));
    } catch (const std::exception& error) {
      fmt::print(stderr, "{} is left out: {}\n", program, error.what());
    }
  };
  add("danted", dante);
  add("v2ray", v2ray);
  add("ss-local", shadowsocks);
  return proxies;
}

}  // namespace zk::bench
