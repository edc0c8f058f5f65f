#include "NetworkLab/NetworkLab.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
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

#include "Base/Bytes.h"
#include "Loopback/ChildProcess.h"
#include "Platform/Sockets.h"

namespace zk::lab {
namespace {

namespace fs = std::filesystem;

// An answer may come in on another interface than the one that the routes name for its source, as
// with any VPN: no reverse path filter. No IPv6: its neighbour discovery is noise.
constexpr const char* vocabulary = R"(set -e
host() {  # NAME
  ip netns del $1 2>/dev/null || :  # left by a test that could not finish
  ip netns add $1
  ip netns exec $1 sh -ec 'cd /proc/sys/net; for of in all default; do
    echo 1 >ipv6/conf/$of/disable_ipv6; echo 0 >ipv4/conf/$of/rp_filter; done'
  ip -n $1 link set lo up
}
link() {  # HOST INTERFACE ADDRESS HOST INTERFACE ADDRESS; an address can be "none"
  ip link add $2 netns $1 type veth peer name $5 netns $4
  end $1 $2 $3; end $4 $5 $6
}
end() {  # HOST INTERFACE ADDRESS
  [ $3 = none ] || ip -n $1 addr add $3/24 dev $2
  ip -n $1 link set $2 up
}
route() { ip -n home route add "$@"; }
bridge() {  # INTERFACE ADDRESS PORT, at home
  ip -n home link add $1 type bridge mcast_snooping 0  # it would say so to all neighbours
  end home $1 $2; ip -n home link set $3 master $1
}
name() { echo "$2 $1" >>/etc/hosts; }  # NAME ADDRESS
trafficTakes() { ip -n home route get 10.2.0.2 | grep -q "dev $1 "; }
ipv6() {  # HOST INTERFACE ADDRESS
  ip netns exec $1 sh -c "echo 0 >/proc/sys/net/ipv6/conf/$2/disable_ipv6"
  ip -n $1 addr add $3/64 dev $2 nodad
}
neighbourAnswers() {  # for whatever home asks for on the wire
  ip netns exec router sh -c 'cd /proc/sys/net/ipv4
    echo 0 >neigh/wire/proxy_delay; echo 1 >conf/wire/proxy_arp'
}
onWire() { ip -n router rule add pref 10 iif wire "$@"; }
)";

constexpr const char* hosts = R"(
for name in home router proxy internet; do host $name; done
ip netns exec router sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
echo 127.0.0.1 localhost >/etc/hosts
link proxy inner 10.2.0.2 router proxy 10.2.0.1
link proxy outer 203.0.113.2 internet proxy 203.0.113.1
ip -n proxy route add 10.0.0.0/8 via 10.2.0.1
ip -n proxy route add default via 203.0.113.1
for peer in 11 12 13; do ip -n internet addr add 198.51.100.$peer dev lo; done
)";

constexpr const char* bothEndsOfVPN = "end home vpn 10.8.0.2; end router vpn 10.8.0.1\n";

constexpr const char* proxySettings = R"(
logoutput: /tmp/danted.log
internal: 10.2.0.2 port = 1080
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

// What the lab is made of, once each.
constexpr const char* needs[] = {
    "command -v ip >/dev/null",
    "command -v danted >/dev/null",
    "command -v setpriv >/dev/null",
    "ip netns add try",
    "ip -n try link add veth0 type veth peer name veth1",
    "ip -n try tuntap add tun0 mode tun",
    "ip -n try rule add iif veth0 ipproto udp blackhole",
    "ip netns del try",
};

constexpr int recorderBuffer = 64 << 20;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

void mountEmpty(const char* folder, const char* type, const char* options) {
  if (mount("lab", folder, type, 0, options) != 0) {
    fail(folder);
  }
}

void prepareMachine(const std::string& daemon) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    fail("/");  // what follows would be mounted for the whole system
  }
  mountEmpty("/run", "tmpfs", "mode=0755");
  fs::copy_file(daemon, "/run/zkturnd");  // it may lie where nobody can read, or in /tmp
  mountEmpty("/tmp", "tmpfs", "mode=1777");
  mountEmpty("/proc", "proc", nullptr);
  for (const char* const file : {"/etc/hosts", "/etc/resolv.conf"}) {
    const std::string own = "/run/" + fs::path(file).filename().string();
    writeFile(own, "");
    if (mount(own.c_str(), file, nullptr, MS_BIND, nullptr) != 0) {
      fail(file);
    }
  }
  writeFile("/run/danted.conf", proxySettings);
  writeFile("/run/zkturnd-as-nobody", asNobody);
  fs::permissions("/run/zkturnd-as-nobody", fs::perms(0755));
  for (const char* const need : needs) {
    loopback::runScript(need);
  }
}

Descriptor openTun() {
  Descriptor tun(open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ifreq request{};
  std::strcpy(request.ifr_name, "vpn");
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (!tun || ioctl(tun.get(), TUNSETIFF, &request) != 0) {
    fail("tun");
  }
  return tun;
}

Descriptor openRecorder() {
  Descriptor recorder = openNonBlockingSocket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL));
  if (setsockopt(recorder.get(), SOL_SOCKET, SO_RCVBUFFORCE, &recorderBuffer,
                 sizeof recorderBuffer) != 0) {
    fail("recorder");
  }
  return recorder;
}

// What is recorded of a packet; empty for what the kernel tells neighbours and senders.
std::string describe(const std::string& link, std::uint16_t etherType, ByteView packet) {
  std::string kind = "other";
  std::string destination = "?";
  int protocol = IPPROTO_RAW;
  std::array<char, INET6_ADDRSTRLEN> text{};
  const auto addressAt = [&](std::size_t at, int family = AF_INET) {
    return inet_ntop(family, &packet[at], text.data(), text.size());
  };
  if (etherType == ETH_P_ARP && packet.size() >= 28) {
    kind = "ARP";
    destination = addressAt(24);
    protocol = destination.starts_with("10.1.") ? IPPROTO_ICMP : protocol;
  } else if (etherType == ETH_P_IP && packet.size() >= 20) {
    protocol = packet[9];
    destination = addressAt(16);
  } else if (etherType == ETH_P_IPV6 && packet.size() >= 40) {
    protocol = packet[6];
    destination = addressAt(24, AF_INET6);
  }
  if (protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6 || protocol == IPPROTO_HOPOPTS) {
    return {};
  }
  if (protocol == IPPROTO_TCP || protocol == IPPROTO_UDP) {
    kind = protocol == IPPROTO_TCP ? "TCP" : "UDP";
  }
  return kind + " to " + destination + " by " + link;
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
  try {
    prepareMachine(daemon);
  } catch (const std::exception& error) {
    return error.what();
  }
  return {};
}

NetworkLab::NetworkLab(const std::string& homeScript) {
  change(hosts);
  in("router", [this] { recorder_ = openRecorder(); });
  in("router", [this] { vpnAtRouter_ = openTun(); });
  in("home", [this] { vpnAtHome_ = openTun(); });
  change(bothEndsOfVPN + homeScript);
  startProxy();
  thread_.sync([this] {
    EventLoop& loop = thread_.loop();
    watches_[0].emplace(loop, recorder_.get(), [this] { recordWire(); });
    watches_[1].emplace(loop, vpnAtHome_.get(), [this] { carry(vpnAtHome_, vpnAtRouter_); });
    watches_[2].emplace(loop, vpnAtRouter_.get(), [this] { carry(vpnAtRouter_, vpnAtHome_); });
  });
}

NetworkLab::~NetworkLab() {
  thread_.stop();
  stopProxy();
}

void NetworkLab::startProxy() {
  loopback::runScript(R"(ip netns exec proxy danted -D -f /run/danted.conf -p /run/danted.pid
    for i in $(seq 500); do  # it goes into the background before it listens
      ip netns exec proxy ss -Htln | grep -q :1080 && break; sleep 0.02
    done)");
}

void NetworkLab::stopProxy() {
  pid_t proxy = -1;
  if (std::ifstream("/run/danted.pid") >> proxy) {
    kill(-proxy, SIGKILL);  // all its processes: one with a session would outlive the others
    while (waitpid(-proxy, nullptr, 0) > 0) {
    }
  }
}

void NetworkLab::in(const std::string& host, const std::function<void()>& work) {
  std::async(std::launch::async, [&] {
    const Descriptor there(open(("/run/netns/" + host).c_str(), O_RDONLY | O_CLOEXEC));
    if (setns(there.get(), CLONE_NEWNET) != 0) {
      fail("namespace " + host);
    }
    work();
  }).get();
}

void NetworkLab::change(const std::string& script) {
  loopback::runScript(std::string(vocabulary) + script);
}

std::map<std::string, std::size_t> NetworkLab::takeTraffic() {
  std::map<std::string, std::size_t> traffic;
  tpacket_stats statistics{};
  thread_.sync([&] {
    recordWire();
    carry(vpnAtHome_, vpnAtRouter_);
    socklen_t length = sizeof statistics;
    getsockopt(recorder_.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &length);
    traffic.swap(traffic_);
  });
  if (statistics.tp_drops != 0) {
    throw std::runtime_error("the recorder has lost packets");
  }
  traffic.erase("");
  return traffic;
}

void NetworkLab::recordWire() {
  std::array<std::uint8_t, 64> head;
  sockaddr_ll from{};
  for (;;) {
    socklen_t length = sizeof from;
    const auto count = recvfrom(recorder_.get(), head.data(), head.size(), 0,
                                reinterpret_cast<sockaddr*>(&from), &length);
    if (count < 0) {
      return;
    }
    // The name belongs to the router, where this thread is not: ask through the recorder.
    ifreq request{};
    request.ifr_ifindex = from.sll_ifindex;
    ioctl(recorder_.get(), SIOCGIFNAME, &request);
    std::string link = request.ifr_name;
    link = link.substr(0, link.find('.'));  // of a VLAN
    if (from.sll_pkttype != PACKET_OUTGOING && link.starts_with("wire")) {
      ++traffic_[describe(link, ntohs(from.sll_protocol),
                          ByteView(head).first(static_cast<std::size_t>(count)))];
    }
  }
}

void NetworkLab::carry(const Descriptor& from, const Descriptor& to) {
  std::array<std::uint8_t, 65536> buffer;
  for (;;) {
    const auto count = read(from.get(), buffer.data(), buffer.size());
    if (count <= 0) {
      return;
    }
    const auto packet = ByteView(buffer).first(static_cast<std::size_t>(count));
    if (&from == &vpnAtHome_) {
      ++traffic_[describe("vpn", packet[0] >> 4 == 4 ? ETH_P_IP : ETH_P_IPV6, packet)];
    }
    if (write(to.get(), packet.data(), packet.size()) < 0) {
      return;
    }
  }
}

}  // namespace zk::lab
