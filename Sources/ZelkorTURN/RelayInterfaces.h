#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <netinet/in.h>

#include "Base/Bytes.h"
#include "Platform/Interfaces.h"

namespace zk {

class DatagramReceiver;
class DatagramSender;
class EventLoop;
class StopSignal;
struct FiveTuple;

/// The address that peers see for a client's relay.
struct RelayedAddress {
  std::string ip;  // dotted quad
  std::uint16_t port = 0;
};

/// How one attempt at opening a relay goes about it.
struct OpeningAttempt {
  bool viaDefault = false;           // datagrams by the default route, not pinned to an interface
  double connectTimeout = 10.0;      // seconds, of the control connection
  const StopSignal* stop = nullptr;  // ends the attempt early when raised
};

/// Where a relayed address comes from.
class TURNRelayProvider {
 public:
  virtual ~TURNRelayProvider() = default;
  /// Opens the relay and blocks until that is done: on a thread of the opening's own. Throws when
  /// it cannot be; what() says why, in one line.
  virtual RelayedAddress allocateRelay(const OpeningAttempt& attempt) = 0;
};

/// A datagram on its way to or from a peer.
struct PeerDatagram {
  ByteView payload;    // somebody else's
  std::string peerIP;  // dotted quad; from a peer also what else a proxy may call it
  std::uint16_t peerPort = 0;
};

/// Who is told what happens on a relay, on the loop's thread. It may close the relay meanwhile.
class RelayListener {
 public:
  /// Datagrams from peers that arrived together, one or more, in order. They live as long as the
  /// call.
  virtual void onDatagrams(std::span<const PeerDatagram> datagrams) = 0;
  /// The proxy ended the association (RFC 1928 section 6), or is gone. Datagrams may go on.
  virtual void onAssociationEnd(std::string_view reason) = 0;
  /// And nothing has come from it for a while since: the relay is of no use any more.
  virtual void onSilence() = 0;

 protected:
  ~RelayListener() = default;
};

/// Whether a route of that interface leads to the destination, as far as the system can be asked.
using RouteCheck =
    std::function<RouteAnswer(unsigned interfaceIndex, const sockaddr_in& destination)>;

/// What the relays of one loop share: it calls them, and they receive and send in its bursts.
struct RelayLoop {
  EventLoop& loop;
  DatagramReceiver& receiver;
  DatagramSender& sender;
};

/// Through what the server moves a client's datagrams, on the loop's thread. On one relay:
/// allocateRelay() once, then receive() once, then any number of sendAll(), then close(); a relay
/// whose opening failed is dropped. Destruction closes, too.
class TURNRelayDataPlane {
 public:
  virtual ~TURNRelayDataPlane() = default;
  /// Sends datagrams to peers, in order, without waiting: what the system does not take at once
  /// waits its turn, within limits. What becomes of each is the relay's to log.
  virtual void sendAll(std::span<const PeerDatagram> datagrams) = 0;
  /// From now on `listener` is told, until close(). Throws std::system_error when the system
  /// refuses.
  virtual void receive(const RelayLoop& loop, RelayListener& listener) = 0;
  /// The machine's routes have changed; what they are now, `hasRoute` tells.
  virtual void onRouteChange(const RouteCheck& hasRoute) = 0;
  /// Whether no route leads to the proxy any more. Such a relay must not be closed, which would
  /// make the system say farewell to the proxy where it is not.
  virtual bool isCutOff() const = 0;
  /// Releases everything; no listener is called any more. Any number of times.
  virtual void close() = 0;
};

/// A relay as the server holds it.
class TURNRelay : public TURNRelayProvider, public TURNRelayDataPlane {};

/// Where the server gets a client's relay from: new and not yet opened. Any thread.
class TURNRelayFactory {
 public:
  virtual ~TURNRelayFactory() = default;
  virtual std::shared_ptr<TURNRelay> makeRelay(const FiveTuple& forClient) = 0;
};

}  // namespace zk
