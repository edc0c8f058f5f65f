#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "ZelkorSOCKS5/Association.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {

class DatagramReceiver;
class DatagramSender;
class EventLoop;

/// The address that peers see for a client's relay.
struct RelayedAddress {
  std::string ip;  // dotted quad
  std::uint16_t port = 0;
};

/// Where a relayed address comes from.
class TURNRelayProvider {
 public:
  virtual ~TURNRelayProvider() = default;
  /// Opens the relay and blocks until that is done: on a thread of the opening's own. Throws when
  /// it cannot be; what() says why, in one line.
  virtual RelayedAddress allocateRelay(const OpeningAttempt& attempt) = 0;
};

/// A peer, with the header of what goes to it through a proxy.
struct Peer {
  Peer() = default;
  explicit Peer(const Endpoint& whose) : endpoint(whose), header(SOCKS5UDPFrame::header(whose)) {}

  Endpoint endpoint;
  SOCKS5UDPFrame::Header header{};
};

/// A datagram on its way to a peer.
struct PeerDatagram {
  ByteView payload;  // somebody else's
  Peer peer;
};

/// A datagram that came from a peer.
using ReceivedDatagram = SOCKS5UDPFrame::Unwrapped;

/// Who is told what happens on a relay, on the loop's thread. It may close the relay meanwhile.
class RelayListener {
 public:
  /// Why a relay is of no use any more.
  enum class Loss { silent, cutOff };

  /// Datagrams from peers that arrived together, one or more, in order. They live as long as the
  /// call.
  virtual void onDatagrams(std::span<const ReceivedDatagram> datagrams) = 0;
  /// The proxy ended the association (RFC 1928 section 6), or is gone. Datagrams may go on.
  virtual void onAssociationEnd(std::string_view reason) = 0;
  /// Nothing has come from the proxy for a while since then, or nothing leads to it any more.
  virtual void onLoss(Loss loss) = 0;

 protected:
  ~RelayListener() = default;
};

/// What the relays of one loop share: it calls them, they receive and send in its bursts, and write
/// their log lines in its room.
struct RelayLoop {
  EventLoop& loop;
  DatagramReceiver& receiver;
  DatagramSender& sender;
  std::string& lineRoom;
};

/// How a relay's datagrams reach the proxy.
struct RelayWay {
  std::string host;                      // of the proxy's UDP relay, as the proxy called it
  Endpoint destination;                  // likewise, where they go
  std::optional<unsigned> interface {};  // that they are pinned to
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
  /// From now on `listener` is told, until close() or retire(). Throws std::system_error when the
  /// system refuses.
  virtual void receive(const RelayLoop& loop, RelayListener& listener) = 0;

  /// How it reaches the proxy.
  virtual RelayWay way() const = 0;
  /// Whether nothing leads to the proxy at present. A relay that is cut off sends nothing, on its
  /// control connection neither, and must not be closed as long as its interface exists: the system
  /// would say farewell to the proxy where it is not, asking the local network for it.
  virtual void setCutOff(bool isCutOff) = 0;
  virtual bool isCutOff() const = 0;

  /// From now on nobody is told anything, and nothing is sent.
  virtual void retire() = 0;
  /// Releases everything; no listener is called any more. Any number of times.
  virtual void close() = 0;
};

/// A relay as the server holds it.
class TURNRelay : public TURNRelayProvider, public TURNRelayDataPlane {};

/// Where the server gets a client's relay from: new and not yet opened. Any thread.
class TURNRelayFactory {
 public:
  virtual ~TURNRelayFactory() = default;
  virtual std::shared_ptr<TURNRelay> makeRelay(const Endpoint& forClient) = 0;
};

}  // namespace zk
