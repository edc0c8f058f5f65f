#include "Contestants.h"

#include <stdexcept>

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Loopback/DaemonProcess.h"
#include "Loopback/ForeignProxy.h"
#include "Loopback/SOCKS5Frame.h"
#include "Loopback/SOCKS5Server.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;

// The peer that clients name. It is never sent to: the far side sends back what it gets.
const Endpoint peer = endpointAt("203.0.113.7", 3478);
constexpr std::uint16_t channel = 0x4000;

std::uint16_t portSaidBy(ChildProcess& child) {
  return static_cast<std::uint16_t>(std::stoi(child.readLine(5s).value_or("0")));
}

class Floor final : public Contestant {
 public:
  explicit Floor(std::uint16_t farPort)
      : child_({"/proc/self/exe", "floor", std::to_string(farPort)}) {
    name_ = "floor";
    port_ = portSaidBy(child_);
    socket_.connectTo(localEndpoint(port_));
    legs_.push_back({socket_.get(), 0, [](ByteView payload) { return concatenated({}, payload); }});
  }
  const ChildProcess& process() const override { return child_; }

 private:
  ChildProcess child_;
  KitSocket socket_ = KitSocket::boundUDP();
};

class Daemon final : public Contestant {
 public:
  Daemon(const std::string& binary, std::uint16_t farPort, DaemonForm form, unsigned clients)
      : proxy_({"/proc/self/exe", "proxy", std::to_string(farPort)}),
        daemon_(binary, {{"ZK_STUN_IPS", "127.0.0.1:3478"}}) {
    const bool isChannel = form == DaemonForm::channelData;
    name_ = isChannel ? "ChannelData" : "indications";
    port_ = daemon_.serve({.proxyPort = portSaidBy(proxy_)});
    for (unsigned i = 0; i < clients; ++i) {
      clients_.push_back(std::make_unique<TURNClient>(port_));
      TURNClient& client = *clients_.back();
      if (!client.allocate().success() ||
          (isChannel && !client.bindChannel(channel, peer).success())) {
        throw std::runtime_error("the daemon gave no relay");
      }
      legs_.push_back(isChannel ? CallLeg::onChannel(client, channel)
                                : CallLeg::indications(client, peer));
    }
  }
  const ChildProcess& process() const override { return daemon_; }

 private:
  ChildProcess proxy_;  // its descriptors and ours together would be too many
  DaemonProcess daemon_;
  std::vector<std::unique_ptr<TURNClient>> clients_;
};

// One of the distribution's servers, and a client of it (RFC 1928).
class Proxy final : public Contestant {
 public:
  Proxy(const std::string& name, std::uint16_t farPort)
      : proxy_(name), control_(KitSocket::connectedTCP(localEndpoint(proxy_.port()))) {
    name_ = name;
    isProxy_ = true;
    ask(Bytes{5, 1, 0}, 2);
    const Bytes answer = ask(Bytes{5, 3, 0, 1, 0, 0, 0, 0, 0, 0}, 10);
    port_ = readUInt16(answer, 8);
    socket_.connectTo(localEndpoint(port_));
    legs_.push_back({socket_.get(), socks5HeaderSize, [farPort](ByteView payload) {
                       return socks5Frame(localEndpoint(farPort), payload);
                     }});
  }
  const ChildProcess& process() const override { return proxy_.process(); }

 private:
  Bytes ask(ByteView message, std::size_t length) {
    setBlocking(control_.get(), 2s);
    control_.send(message);
    Bytes answer(length);
    if (recv(control_.get(), answer.data(), length, MSG_WAITALL) != static_cast<ssize_t>(length) ||
        answer[1] != 0) {
      throw std::runtime_error("it refuses: " + proxy_.output());
    }
    return answer;
  }

  ForeignProxy proxy_;
  KitSocket control_;
  KitSocket socket_ = KitSocket::boundUDP();
};

}  // namespace

void runProxy(std::uint16_t farPort) {
  SOCKS5Script script;
  script.announcePort = farPort;
  const SOCKS5Server proxy(script);
  fmt::print("{}\n", proxy.port());
  for (char c = 0; read(STDIN_FILENO, &c, 1) > 0;) {
  }
}

std::unique_ptr<Contestant> makeFloor(std::uint16_t farPort) {
  return std::make_unique<Floor>(farPort);
}

std::unique_ptr<Contestant> makeDaemon(const std::string& binary, std::uint16_t farPort,
                                       DaemonForm form, unsigned clients) {
  return std::make_unique<Daemon>(binary, farPort, form, clients);
}

std::vector<std::unique_ptr<Contestant>> makeProxies(std::uint16_t farPort) {
  std::vector<std::unique_ptr<Contestant>> proxies;
  for (const char* const name : ForeignProxy::names) {
    std::string hindrance = ForeignProxy::hindrance(name);
    try {
      if (hindrance.empty()) {
        proxies.push_back(std::make_unique<Proxy>(name, farPort));
      }
    } catch (const std::exception& error) {
      hindrance = error.what();
    }
    if (!hindrance.empty()) {
      fmt::print(stderr, "{} is left out: {}\n", name, hindrance);
    }
  }
  return proxies;
}

}  // namespace zk::bench
