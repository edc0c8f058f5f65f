#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "Platform/Descriptor.h"

namespace zk {

/// The look at this machine's network interfaces and routes. Everything is asked of the system
/// afresh, takes about a millisecond, needs no privilege and never fails: what the system does not
/// answer is as if it were not there. Any thread.
///
/// Destinations are IPv4 or IPv6 socket addresses whose port does not matter.

enum class InterfaceType { wifi, wiredEthernet, other };

/// A network interface that can carry traffic now.
struct NetworkInterface {
  std::string name;
  unsigned index = 0;
  InterfaceType type = InterfaceType::other;
};

/// The interfaces that are up, have a carrier and an address: first those that have a default
/// route, by its metric, then the others; by index where that leaves them equal.
///
/// What is stacked on hardware (a bridge, bond, VLAN, macvlan) counts as what lies under it.
/// Tunnels, the loopback, and bridges that only containers are plugged into are `other`: what is
/// sent into them stays here, or leaves the machine by a way that somebody else decides.
std::vector<NetworkInterface> availableInterfaces();

/// Whether a route of that interface leads to `destination`. A socket pinned to an interface
/// without one would take the destination for a neighbour and ask for it on the local network,
/// where anybody may answer.
bool hasRoute(unsigned interfaceIndex, const sockaddr& destination);

/// A route that reaches its destinations on the interface's own link, with no gateway between.
struct LinkRoute {
  unsigned interfaceIndex = 0;
  unsigned prefixLength = 0;
};

/// The most specific route to `destination`, whichever table it stands in, when it is a link route.
std::optional<LinkRoute> linkRouteTo(const sockaddr& destination);

/// Whether `destination` is an address of this machine, the loopback's included.
bool isOwnAddress(const sockaddr& destination);

/// Is told by the system when routes, addresses or interfaces change.
class RouteWatch {
 public:
  /// Where the system has no such watch to give there is none, and nothing is ever told.
  RouteWatch();

  /// Readable after a change; -1 without a watch.
  int descriptor() const { return socket_.get(); }
  /// Forgets what has been told so far. Never blocks.
  void drain();

 private:
  Descriptor socket_;
};

}  // namespace zk
