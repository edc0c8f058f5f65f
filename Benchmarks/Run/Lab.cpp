#include "Run/Lab.h"

#include <fstream>

#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "Loopback/Scratch.h"
#include "NetworkLab/NetworkLab.h"
#include "Relay/Call.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using lab::NetworkLab;

constexpr std::size_t zerosSize = 1 << 20;
constexpr std::chrono::milliseconds tick{50};  // how soon it is noticed that all is to end
constexpr const char* shellPath = "/bin/sh";

// Everybody may open the tun, as on most machines.
constexpr const char* hosts = R"(
mv /run/zkturnd /run/zkturn
mknod -m 666 /run/tun c 10 200; chmod 666 /run/tun
mount --bind /run/tun /dev/net/tun
host home; host far
link home lan0 {} far wire {}
route default via {}
ip -n far addr add {} dev lo
)";

// As the user "nobody", who has no privilege to seal with.
constexpr const char* sealedShell =
    "export ZK_STUN_IPS=203.0.113.1:3478; exec setpriv --reuid=65534 --regid=65534 --clear-groups "
    "--inh-caps=-all --bounding-set=-all "
    "/run/zkturn run {}:{} --dns {} -- sh 2>/run/zkturn.log";

std::unique_ptr<ChildProcess> start(const std::string& host,
                                    const std::vector<std::string>& command) {
  std::unique_ptr<ChildProcess> started;
  NetworkLab::in(host, [&] { started = std::make_unique<ChildProcess>(command); });
  return started;
}

Descriptor makeZeros() {
  Descriptor zeros(memfd_create("zeros", MFD_CLOEXEC));
  if (ftruncate(zeros.get(), zerosSize) != 0) {
    throw std::system_error(errno, std::generic_category(), "ftruncate");
  }
  return zeros;
}

}  // namespace

Endpoint onInternet(std::uint16_t port) {
  return endpointAt(Addresses::internet, port);
}

Endpoint proxyEndpoint() {
  return endpointAt(Addresses::proxy, Addresses::proxyPort);
}

// ---- The far host ------------------------------------------------------------------------------

Pages::Pages(const Endpoint& at)
    : listener_(KitSocket::listener(at.ip(), at.port)), zeros_(makeZeros()) {
  thread_ = std::thread([this] {
    while (!ending_) {
      if (waitReadable(listener_.get(), tick)) {
        serve(listener_.accepted());
      }
    }
  });
}

Pages::~Pages() {
  ending_ = true;
  thread_.join();
}

void Pages::serve(const KitSocket& client) const {
  setBlocking(client.get(), 5s);
  const timeval limit{5, 0};
  setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  std::array<char, 4096> request{};
  std::size_t size = 0;
  if (recv(client.get(), request.data(), request.size() - 1, 0) <= 0 ||
      std::sscanf(request.data(), "GET /%zu", &size) != 1) {
    return;
  }
  client.send(bytesOf(
      fmt::format("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: {}\r\n\r\n", size)));
  for (ssize_t sent = 1; size > 0 && sent > 0; size -= static_cast<std::size_t>(sent)) {
    off_t at = 0;
    sent = sendfile(client.get(), zeros_.get(), &at, std::min(size, zerosSize));
  }
}

FarHost::FarHost()
    : near({}, KitSocket::boundUDP(Addresses::proxy)),
      later({}, KitSocket::boundUDP(Addresses::proxy), callDistance),
      proxy(scriptFor(near), Addresses::proxy, Addresses::proxyPort),
      pages(onInternet(Addresses::pagesPort)),
      quiet(KitSocket::listener(Addresses::internet, Addresses::quietPort)),
      peer(Addresses::internet) {}

std::unique_ptr<FarHost> FarHost::make() {
  std::unique_ptr<FarHost> made;
  NetworkLab::in("far", [&] { made = std::make_unique<FarHost>(); });
  return made;
}

SOCKS5Script FarHost::scriptFor(const FarSide& side) {
  SOCKS5Script script;
  script.announcePort = side.port();
  return script;
}

// ---- Ways --------------------------------------------------------------------------------------

Way Way::direct() {
  return {"home", start("home", {shellPath})};
}

Way Way::sealed() {
  const std::string command =
      fmt::format(sealedShell, Addresses::proxy, Addresses::proxyPort, Addresses::internet);
  Way way("sealed", start("home", {shellPath, "-c", command}));
  way.ask("echo it runs");
  const pid_t pid = way.process().pid();
  std::string inside;
  std::ifstream(fmt::format("/proc/{0}/task/{0}/children", pid)) >> inside;
  way.learnNetwork(inside);
  return way;
}

Way Way::bareGate() {
  Way way("gate", start("home", {"/proc/self/exe", "gate"}));
  const std::string thread = way.process_->readLine(5s).value();
  way.learnNetwork(fmt::format("{}/task/{}", way.process().pid(), thread));
  way.shell_ = start("gate", {shellPath});
  return way;
}

void Way::learnNetwork(const std::string& thread) const {
  runScript(fmt::format("ln -sfn /proc/{}/ns/net /run/netns/{}", thread, host_));
}

std::string Way::ask(const std::string& command) {
  shell().write(command + "\n");
  const auto line = shell().readLine(60s);
  if (!line) {
    throw std::runtime_error(
        fmt::format("no answer to \"{}\" in {}: {}", command, host_, contentOf("/run/zkturn.log")));
  }
  return *line;
}

// ---- The lab -----------------------------------------------------------------------------------

std::string enterLab() {
  std::string hindrance = lab::enterPrivateMachine(programBeside("zkturn"));
  if (hindrance.empty()) {
    NetworkLab::change(fmt::format(hosts, Addresses::home, Addresses::proxy, Addresses::proxy,
                                   Addresses::internet));
  }
  return hindrance;
}

}  // namespace zk::bench
