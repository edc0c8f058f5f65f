#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "Loopback/LoopThread.h"
#include "Platform/Descriptor.h"

namespace zk::lab {

/// Moves this process to a machine of its own: networks, process numbers and mounts, with an empty
/// /run and /tmp, so that the daemon's logs are nobody else's. Nothing outside is touched, and the
/// kernel clears up when the process is gone, however it ends. Afterwards /run/zkturnd-as-nobody
/// starts `daemon` without any privilege.
///
/// Returns in a child process; the parent ends with the child's exit status. The text says why it
/// could not be done, and is empty if it could. Before any thread is started.
std::string enterPrivateMachine(const std::string& daemon);

/// A network with five hosts, each a network namespace:
///
///   home --- wire, wire2 --- router --- proxy --- internet
///      `-------- vpn --------'          (Dante)   (STUN server, peers)
///
/// The VPN is a tun device at home that this process holds. It records what it gets, and carries it
/// to the router. What leaves home by a wire is recorded by the router.
class NetworkLab {
 public:
  static constexpr const char* proxyInner = "10.2.0.2";      // where home reaches the proxy
  static constexpr const char* proxyPublic = "203.0.113.2";  // where it goes on from
  static constexpr std::uint16_t proxyPort = 1080;
  static constexpr const char* internet = "203.0.113.1";
  static constexpr const char* peers[] = {"198.51.100.11", "198.51.100.12", "198.51.100.13"};

  /// Builds the network and starts the proxy. `homeScript` equips the home, in shell and with the
  /// vocabulary that stands in the source file.
  explicit NetworkLab(const std::string& homeScript);
  ~NetworkLab();

  /// Runs `work` on a thread in that host. The sockets it opens and the processes and threads it
  /// starts stay there.
  static void in(const std::string& host, const std::function<void()>& work);

  /// Changes the network, in shell and with the same vocabulary.
  static void change(const std::string& script);

  /// Kills the proxy, and returns when none of its processes is left: while one is, another proxy
  /// does not start. Starts it, and returns when it listens.
  static void stopProxy();
  static void startProxy();

  /// The packets that have left home since this was last called, as they were seen at the other
  /// end of their link, and how many of each: "UDP to 10.2.0.2 by wire". A link is "wire", "wire2"
  /// or "vpn"; ARP counts when it asks for somebody beyond the neighbours. ICMP does not, which
  /// comes from the kernel. Throws when the recorder has lost any.
  std::map<std::string, std::size_t> takeTraffic();

 private:
  void recordWire();
  void carry(const Descriptor& from, const Descriptor& to);

  Descriptor recorder_;
  Descriptor vpnAtHome_;
  Descriptor vpnAtRouter_;
  std::map<std::string, std::size_t> traffic_;  // belongs to the loop's thread
  loopback::LoopThread thread_{"lab"};
  std::optional<loopback::Watch> watches_[3];
};

}  // namespace zk::lab
