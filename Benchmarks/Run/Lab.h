#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "Loopback/ChildProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/SOCKS5Server.h"
#include "Relay/FarSide.h"

namespace zk::bench {

/// Where the lab is.
namespace Addresses {
inline constexpr const char* home = "10.1.0.2";
inline constexpr const char* proxy = "10.1.0.1";
inline constexpr std::uint16_t proxyPort = 1080;
inline constexpr const char* internet = "198.51.100.11";
inline constexpr std::uint16_t pagesPort = 80;
inline constexpr std::uint16_t quietPort = 81;
}  // namespace Addresses

Endpoint onInternet(std::uint16_t port);
Endpoint proxyEndpoint();

/// Serves pages of zeros over HTTP, one after the other: /COUNT has COUNT octets.
class Pages {
 public:
  explicit Pages(const Endpoint& at);
  ~Pages();
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;

 private:
  void serve(const loopback::KitSocket& client) const;

  const loopback::KitSocket listener_;
  const Descriptor zeros_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

/// A host that is far away: the proxy, and the internet behind it, all on threads of this process.
struct FarHost {
  FarHost();
  /// There.
  static std::unique_ptr<FarHost> make();
  /// The proxy's associations lead to that far side, which is relay and peers in one.
  void relayBy(const FarSide& side) { proxy.setScript(scriptFor(side)); }
  static loopback::SOCKS5Script scriptFor(const FarSide& side);

  FarSide near;   // answers at once
  FarSide later;  // as late as in a call
  loopback::SOCKS5Server proxy;
  Pages pages;
  loopback::KitSocket quiet;  // accepts, and says nothing
  loopback::EchoPeer peer;
};

/// A network with programs in it, and what carries them to the internet. Each of the networks has a
/// name for NetworkLab::in().
class Way {
 public:
  static Way direct();
  static Way sealed();
  static Way bareGate();

  const std::string& host() const { return host_; }
  /// What carries.
  const loopback::ChildProcess& process() const { return *process_; }
  /// Runs one command of a program in there, and returns the line that it says.
  std::string ask(const std::string& command);

 private:
  Way(std::string host, std::unique_ptr<loopback::ChildProcess> process)
      : host_(std::move(host)), process_(std::move(process)) {}
  loopback::ChildProcess& shell() { return shell_ ? *shell_ : *process_; }
  void learnNetwork(const std::string& thread) const;

  std::string host_;
  std::unique_ptr<loopback::ChildProcess> process_;
  std::unique_ptr<loopback::ChildProcess> shell_;  // where it is another process
};

/// Moves this process to a machine of its own with two hosts, "home" and "far". Why it could not;
/// empty when it could. Before any thread is started.
std::string enterLab();

}  // namespace zk::bench
