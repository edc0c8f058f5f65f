#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "Platform/Bytes.h"

namespace zk {

struct FiveTuple;

/// The address that peers see for a client's relay.
struct RelayedAddress {
  std::string ip;  // dotted quad
  std::uint16_t port = 0;
};

/// Whom the allocation table asks for a relayed address.
class TURNRelayProvider {
 public:
  virtual ~TURNRelayProvider() = default;
  /// Blocks until the relay is open. Throws when it cannot be; what() says why, in one line.
  virtual RelayedAddress allocateRelay() = 0;
};

/// A datagram on its way to or from a peer.
struct PeerDatagram {
  ByteView payload;    // somebody else's
  std::string peerIP;  // dotted quad; from a peer also what else a proxy may call it
  std::uint16_t peerPort = 0;
};

/// Through what the server moves a client's datagrams. On one relay: allocateRelay() once, then
/// receive() once, then any number of send(), then close(); a relay whose opening failed is
/// dropped.
class TURNRelayDataPlane {
 public:
  /// Takes the datagrams that arrived together, one or more, in order. They live as long as the
  /// call.
  using Handler = std::function<void(std::span<const PeerDatagram>)>;

  virtual ~TURNRelayDataPlane() = default;
  /// Sends one datagram to a peer, at once. Throws when it could not be sent.
  void send(ByteView payload, const std::string& toPeerIP, std::uint16_t peerPort) {
    const PeerDatagram one{payload, toPeerIP, peerPort};
    sendAll({&one, 1});
  }
  /// The same for several, in order, together. Throws when one could not be sent, after trying all.
  virtual void sendAll(std::span<const PeerDatagram> datagrams) = 0;
  /// From now on `handler` is called with every datagram from a peer, on a thread of the relay's
  /// own. It must not block for long and must not close the relay. Throws std::system_error when
  /// there is no thread or memory to be had.
  virtual void receive(Handler handler) = 0;
  /// Releases the relay; no handler call is under way or begins after it has returned.
  virtual void close() = 0;
};

/// A relay as the server holds it.
class TURNRelay : public TURNRelayProvider, public TURNRelayDataPlane {};

/// Where the server gets a client's relay from: new and not yet opened.
class TURNRelayFactory {
 public:
  virtual ~TURNRelayFactory() = default;
  virtual std::shared_ptr<TURNRelay> makeRelay(const FiveTuple& forClient) = 0;
};

}  // namespace zk
