#pragma once

#include <array>
#include <cstddef>

#include "Platform/DatagramSocket.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// What a burst of clients' datagrams comes to for their relays. It lives on the stack of the
/// function that reads the burst, and sends at its end what has not been sent before. One thread.
class PeerBatch {
 public:
  PeerBatch() = default;
  ~PeerBatch() { send(); }
  PeerBatch(const PeerBatch&) = delete;
  PeerBatch& operator=(const PeerBatch&) = delete;

  /// The payload must live until it is sent, and so must the relay.
  void add(TURNRelay& relay, ByteView payload, const Peer& peer);
  /// Sends all, relay by relay, each relay's in their order.
  void send();

 private:
  void bringTogether();

  std::array<TURNRelay*, maxBurst> relays_;
  std::array<PeerDatagram, maxBurst> datagrams_;
  std::size_t count_ = 0;
};

}  // namespace zk
