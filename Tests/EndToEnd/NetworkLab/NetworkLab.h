#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Loopback/EventLoop.h"

namespace zk::lab {

/// Moves this process to a machine of its own: networks, process numbers and mounts, with an empty
/// /run and /tmp, so that the daemon's logs are nobody else's. Nothing outside is touched, and the
/// kernel clears up when the process is gone, however it ends. Afterwards /run/zkturnd-as-nobody
/// starts `daemon` without any privilege.
///
/// Returns in a child process; the parent ends with the child's exit status. The text says why it
/// could not be done, and is empty if it could. Before any thread is started.
std::string enterPrivateMachine(const std::string& daemon);

/// Runs a script of the shell. Throws std::runtime_error when a command in it fails.
void run(const std::string& script);

/// A packet that left home, as it was seen on the first hop.
struct Packet {
  std::string link;  // "wire", "wire2", or "vpn"
  std::uint16_t etherType = 0;
  std::string source;       // the rest is of IPv4 packets only
  std::string destination;  // dotted quad
  std::uint8_t protocol = 0;
};

/// A network with five hosts on two links, in network namespaces:
///
///   home ---wire--- router ---- proxy ---- internet
///     \---- vpn ----/             danted     STUN server, peers
///
/// The VPN is a tun device at home that this process holds. It records what it gets, and carries it
/// to the router once it is told to. At home there is no more than the namespace: the tests say
/// which interfaces it has. What leaves it on a wire is recorded by the router.
class NetworkLab {
 public:
  static constexpr const char* proxyInner = "10.2.0.2";      // where home reaches the proxy
  static constexpr const char* proxyPublic = "203.0.113.2";  // where it goes on from
  static constexpr std::uint16_t proxyPort = 1080;
  static constexpr const char* farSide = "203.0.113.1";  // the internet's own address

  /// Builds the network, runs `homeScript` to equip the home, and starts the proxy. The script may
  /// say `link HOST INTERFACE ADDRESS HOST INTERFACE ADDRESS` for a cable, up and with a /24 at
  /// both ends; an address can be `none`.
  explicit NetworkLab(const std::string& homeScript);
  ~NetworkLab();
  NetworkLab(const NetworkLab&) = delete;
  NetworkLab& operator=(const NetworkLab&) = delete;

  /// Runs `work` on a thread in that host. The sockets it opens and the processes and threads it
  /// starts stay there.
  static void in(const std::string& host, const std::function<void()>& work);

  /// Whether the VPN carries packets to the router. It does not at first.
  void setForwarding(bool forwards);
  /// Makes the router drop what comes in on the wire, all of it or UDP only, without a word.
  void cutWire() { run("ip -n router rule add pref 10 iif wire blackhole"); }
  void dropUDPOnWire() { run("ip -n router rule add pref 10 iif wire ipproto udp blackhole"); }

  /// All packets that have left home so far. Throws when the recorder lost any.
  std::vector<Packet> packets();

 private:
  void startProxy();
  void openRecorder();
  void recordWire();
  void recordVPN();
  void carryBack();

  pid_t proxy_ = -1;
  int vpnAtHome_ = -1;
  int vpnAtRouter_ = -1;
  int recorder_ = -1;
  // These belong to the loop's thread.
  bool forwards_ = false;
  std::vector<Packet> packets_;
  std::unique_ptr<loopback::EventLoop> loop_;
};

}  // namespace zk::lab
