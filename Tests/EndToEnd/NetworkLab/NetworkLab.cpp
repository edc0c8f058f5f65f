#include "EndToEnd/NetworkLab/NetworkLab.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Bytes.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"

namespace zk::lab {
namespace {

// The source address of an answer may belong to another interface than the one that it comes in
// on, as it does with any VPN: no reverse path filter. No IPv6: its neighbour discovery is noise.
constexpr const char* vocabulary = R"(
host() {
  ip netns del $1 2>/dev/null || :  # what a test has left that could not finish
  ip netns add $1
  ip netns exec $1 sh -e -c '
    cd /proc/sys/net
    for of in all default; do
      echo 1 >ipv6/conf/$of/disable_ipv6
      echo 0 >ipv4/conf/$of/rp_filter
    done'
  ip -n $1 link set lo up
}
# link HOST INTERFACE ADDRESS  HOST INTERFACE ADDRESS
link() {
  ip link add $2 netns $1 type veth peer name $5 netns $4
  [ $3 = none ] || ip -n $1 addr add $3/24 dev $2
  ip -n $4 addr add $6/24 dev $5
  ip -n $1 link set $2 up
  ip -n $4 link set $5 up
}
)";

constexpr const char* allButHome = R"(
for name in home router proxy internet; do host $name; done
ip netns exec router sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
link proxy inner 10.2.0.2 router toproxy 10.2.0.1
link proxy outer 203.0.113.2 internet toproxy 203.0.113.1
ip -n proxy route add 10.0.0.0/8 via 10.2.0.1
ip -n proxy route add default via 203.0.113.1
for peer in 11 12 13; do ip -n internet addr add 198.51.100.$peer/32 dev lo; done
)";

constexpr const char* bothEndsOfVPN = R"(
ip -n home addr add 10.8.0.2/24 dev vpn
ip -n router addr add 10.8.0.1/24 dev vpn
ip -n home link set vpn up
ip -n router link set vpn up
)";

constexpr const char* proxySettings = R"(
logoutput: /tmp/danted.log
internal: inner port = 1080
external: outer
clientmethod: none
socksmethod: none
user.privileged: root
user.unprivileged: nobody
client pass { from: 0.0.0.0/0 to: 0.0.0.0/0 }
socks pass { from: 0.0.0.0/0 to: 0.0.0.0/0 }
)";

constexpr const char* asNobody =
    "#!/bin/sh\n"
    "exec setpriv --reuid=65534 --regid=65534 --clear-groups --inh-caps=-all --bounding-set=-all "
    "--no-new-privs /run/zkturnd\n";

constexpr const char* probe = R"(
ip netns add try
ip -n try link add veth0 type veth peer name veth1
ip -n try tuntap add tun0 mode tun
ip -n try rule add iif veth0 ipproto udp blackhole
ip netns del try
)";

constexpr int recorderBuffer = 64 << 20;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

std::string prepareMachine(const std::string& daemon) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("lab", "/run", "tmpfs", 0, "mode=0755") != 0) {
    return "cannot mount: " + errorText(errno);
  }
  std::filesystem::copy_file(daemon, "/run/zkturnd");  // may lie where nobody can read, or in /tmp
  writeFile("/run/zkturnd-as-nobody", asNobody);
  std::filesystem::permissions("/run/zkturnd-as-nobody", std::filesystem::perms(0755));
  if (mount("lab", "/tmp", "tmpfs", 0, "mode=1777") != 0 ||
      mount("lab", "/proc", "proc", 0, nullptr) != 0) {
    return "cannot mount: " + errorText(errno);
  }
  try {
    run("for tool in ip danted setpriv; do command -v $tool >/dev/null; done");
    run(probe);
  } catch (const std::exception& error) {
    return error.what();
  }
  return {};
}

int openTun() {
  const int tun = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ifreq request{};
  std::strcpy(request.ifr_name, "vpn");
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (tun < 0 || ioctl(tun, TUNSETIFF, &request) != 0) {
    fail("tun");
  }
  return tun;
}

Packet parsePacket(std::string link, std::uint16_t etherType, ByteView packet) {
  Packet parsed{std::move(link), etherType, {}, {}, 0};
  if (etherType == ETH_P_IP && packet.size() >= 20) {
    parsed.protocol = packet[9];
    parsed.source = formatIPv4(&packet[12]);
    parsed.destination = formatIPv4(&packet[16]);
  }
  return parsed;
}

}  // namespace

std::string enterPrivateMachine(const std::string& daemon) {
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID) != 0) {
    return "cannot make namespaces: " + errorText(errno);
  }
  if (const pid_t child = fork(); child > 0) {
    int status = 0;
    waitpid(child, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  } else if (child < 0) {
    return "cannot fork: " + errorText(errno);
  }
  // The child is the first process of its machine: with it, everything ends that it has started.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  return prepareMachine(daemon);
}

void run(const std::string& script) {
  if (std::system(("set -e\n" + script).c_str()) != 0) {
    throw std::runtime_error("failed: " + script);
  }
}

NetworkLab::NetworkLab(const std::string& homeScript) {
  run(std::string(vocabulary) + allButHome);
  in("home", [this] { vpnAtHome_ = openTun(); });
  in("router", [this] { vpnAtRouter_ = openTun(); });
  run(std::string(vocabulary) + bothEndsOfVPN + homeScript);
  openRecorder();
  startProxy();
  loop_ = std::make_unique<loopback::EventLoop>("lab");
  loop_->sync([this] {
    loop_->watch(recorder_, [this] { recordWire(); });
    loop_->watch(vpnAtHome_, [this] { recordVPN(); });
    loop_->watch(vpnAtRouter_, [this] { carryBack(); });
  });
}

NetworkLab::~NetworkLab() {
  loop_.reset();
  for (const int descriptor : {recorder_, vpnAtHome_, vpnAtRouter_}) {
    close(descriptor);
  }
  kill(proxy_, SIGTERM);  // to the first of its processes, which ends the others
  waitpid(proxy_, nullptr, 0);
  run("for name in home router proxy internet; do ip netns del $name; done");
}

void NetworkLab::in(const std::string& host, const std::function<void()>& work) {
  std::async(std::launch::async, [&] {
    const int there = open(("/run/netns/" + host).c_str(), O_RDONLY | O_CLOEXEC);
    const bool moved = there >= 0 && setns(there, CLONE_NEWNET) == 0;
    if (!moved) {
      fail("namespace " + host);
    }
    close(there);
    work();
  }).get();
}

void NetworkLab::setForwarding(bool forwards) {
  loop_->sync([&] { forwards_ = forwards; });
}

std::vector<Packet> NetworkLab::packets() {
  std::vector<Packet> packets;
  tpacket_stats statistics{};
  loop_->sync([&] {
    recordWire();
    recordVPN();
    socklen_t length = sizeof statistics;
    getsockopt(recorder_, SOL_PACKET, PACKET_STATISTICS, &statistics, &length);
    packets = packets_;
  });
  if (statistics.tp_drops != 0) {
    throw std::runtime_error("the recorder has lost packets");
  }
  return packets;
}

void NetworkLab::startProxy() {
  writeFile("/run/danted.conf", proxySettings);
  in("proxy", [this] {
    proxy_ = fork();
    if (proxy_ == 0) {
      execlp("danted", "danted", "-f", "/run/danted.conf", "-p", "/run/danted.pid", nullptr);
      _exit(127);
    }
  });
  in("proxy", [] {
    const sockaddr_in address = socketAddress(proxyInner, proxyPort);
    for (int attempt = 0; attempt < 100; ++attempt) {
      const int socket = openSocket(AF_INET, SOCK_STREAM, 0);
      const int result =
          connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
      closeSocket(socket);
      if (result == 0) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    fail("the proxy does not start");
  });
}

void NetworkLab::openRecorder() {
  in("router", [this] {
    recorder_ = openSocket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK, htons(ETH_P_ALL));
    if (recorder_ < 0 || setsockopt(recorder_, SOL_SOCKET, SO_RCVBUFFORCE, &recorderBuffer,
                                    sizeof recorderBuffer) != 0) {
      fail("recorder");
    }
  });
}

void NetworkLab::recordWire() {
  std::array<std::uint8_t, 64> head;
  sockaddr_ll from{};
  for (;;) {
    socklen_t length = sizeof from;
    const auto count = recvfrom(recorder_, head.data(), head.size(), 0,
                                reinterpret_cast<sockaddr*>(&from), &length);
    if (count < 0) {
      return;
    }
    // The name belongs to the router, where this thread is not: ask through the recorder.
    ifreq request{};
    request.ifr_ifindex = from.sll_ifindex;
    ioctl(recorder_, SIOCGIFNAME, &request);
    const std::string link = request.ifr_name;
    if (from.sll_pkttype != PACKET_OUTGOING && link.starts_with("wire")) {
      packets_.push_back(parsePacket(link, ntohs(from.sll_protocol),
                                     ByteView(head).first(static_cast<std::size_t>(count))));
    }
  }
}

void NetworkLab::recordVPN() {
  std::array<std::uint8_t, 65536> buffer;
  for (;;) {
    const auto count = read(vpnAtHome_, buffer.data(), buffer.size());
    if (count <= 0) {
      return;
    }
    const auto packet = ByteView(buffer).first(static_cast<std::size_t>(count));
    const bool isIPv4 = packet[0] >> 4 == 4;
    packets_.push_back(parsePacket("vpn", isIPv4 ? ETH_P_IP : ETH_P_IPV6, packet));
    if (forwards_ && write(vpnAtRouter_, packet.data(), packet.size()) < 0) {
      return;
    }
  }
}

void NetworkLab::carryBack() {
  std::array<std::uint8_t, 65536> buffer;
  for (;;) {
    const auto count = read(vpnAtRouter_, buffer.data(), buffer.size());
    if (count <= 0 || write(vpnAtHome_, buffer.data(), static_cast<std::size_t>(count)) < 0) {
      return;
    }
  }
}

}  // namespace zk::lab
