#pragma once

#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <sys/socket.h>

#include "Platform/Descriptor.h"

namespace zk {

enum class InterfaceType { wifi, wiredEthernet, other };

/// A network interface that can carry traffic now.
struct NetworkInterface {
  std::string name;
  unsigned index = 0;
  InterfaceType type = InterfaceType::other;
};

/// The state of an interface: it does not exist any more; it is down, or lacks a carrier or an
/// address; or it can carry traffic.
enum class InterfaceState { gone, unusable, usable };

/// A route that reaches its destinations on the interface's own link, with no gateway between.
struct LinkRoute {
  unsigned interfaceIndex = 0;
  unsigned prefixLength = 0;
};

/// The system could not be asked about its interfaces or routes, for lack of a descriptor or of
/// memory. That must never be taken for "there is none".
class LookFailed : public std::system_error {
 public:
  using std::system_error::system_error;
  explicit LookFailed(const std::system_error& reason) : std::system_error(reason) {}
};

/// Whether there is a route; a look that failed is an answer of its own.
enum class RouteAnswer { no, yes, unknown };

/// Looks at this machine's network interfaces and routes. Every call asks the system anew, takes
/// about a millisecond and needs no privilege. The constructor opens all that is needed, so an
/// object that is kept works even when descriptors have run out. One thread at a time. Everything
/// but askRoute() throws LookFailed.
///
/// Destinations are IPv4 or IPv6 socket addresses whose port does not matter.
class Interfaces {
 public:
  Interfaces();
  ~Interfaces();

  /// The interfaces that are usable: first those that have a default route, by its metric, then the
  /// others; by index where that leaves them equal.
  ///
  /// What is stacked on hardware (a bridge, bond, VLAN, macvlan) counts as what lies under it.
  /// Tunnels, the loopback, and bridges that only containers are plugged into are `other`: what is
  /// sent into them stays here or leaves the machine by a way that somebody else decides on.
  std::vector<NetworkInterface> available();

  InterfaceState stateOf(unsigned interfaceIndex);

  /// Whether a route of that interface leads to `destination`; of any interface when the index is
  /// 0. A socket pinned to an interface without one would take the destination for a neighbour and
  /// ask for it on the local network, where anybody may answer.
  bool hasRoute(unsigned interfaceIndex, const sockaddr& destination);
  RouteAnswer askRoute(unsigned interfaceIndex, const sockaddr& destination);

  /// The most specific route to `destination`, whichever table it stands in, when it is a link
  /// route.
  std::optional<LinkRoute> linkRouteTo(const sockaddr& destination);

  /// Whether `destination` is an address of this machine, the loopback's included.
  bool isOwnAddress(const sockaddr& destination);

 private:
  struct System;
  const std::unique_ptr<System> system_;
};

/// Learns from the system when routes, addresses or interfaces change.
class RouteWatch {
 public:
  /// Throws std::system_error when the system refuses.
  RouteWatch();

  /// Readable after a change.
  int descriptor() const { return socket_.get(); }
  /// Discards the messages that have come so far. Never blocks.
  void drain();

 private:
  Descriptor socket_;
};

}  // namespace zk
