#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Platform/SerialQueue.h"

namespace zk {

enum class InterfaceType { wifi, wiredEthernet, other };

/// A network interface that can carry IPv4 traffic now.
struct NetworkInterface {
  std::string name;
  unsigned index = 0;
  InterfaceType type = InterfaceType::other;
};

/// The interfaces that are up, have a carrier and an IPv4 address: first those that have a default
/// route in the main table, by its metric, then the others; by index where that leaves them equal.
/// Empty when the system does not answer.
///
/// Wired is Ethernet hardware, or a veth end, which is all the hardware that a container has.
/// Tunnels, bridges, bonds and the loopback are `other`: what is sent into them leaves the machine
/// by a way that somebody else decides.
std::vector<NetworkInterface> availableInterfaces();

/// Reports the path once, as it is when the monitor starts, on the queue that it is started on.
class PathMonitor {
 public:
  using Handler = std::function<void(const std::vector<NetworkInterface>&)>;

  explicit PathMonitor(Handler handler);
  /// Queues the report.
  void start(SerialQueue& queue);
  /// No handler call begins after this has returned. Waits for one that is under way.
  void cancel();

 private:
  struct State;
  const std::shared_ptr<State> state_;
};

}  // namespace zk
