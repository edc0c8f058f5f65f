#pragma once

#include <array>
#include <cstdint>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "Platform/DatagramSocket.h"
#include "Platform/Random.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk {

/// What goes to clients, gathered over a round of the loop, across relays. Copied, since what comes
/// from several relays in one round leaves together: the copy costs less than a call of its own.
/// One thread.
class ClientOutbox {
 public:
  /// Sends through `socket`, which outlives this.
  explicit ClientOutbox(DatagramSocket& socket) : socket_(socket) {}

  /// An answer.
  void add(const TURNMessage& message, const Endpoint& to);
  /// A datagram from a peer, on the channel that is bound to it.
  void addChannelData(std::uint16_t channel, ByteView payload, const Endpoint& to);
  /// And in a Data indication (RFC 5766 section 10.4).
  void addIndication(const Endpoint& peer, ByteView payload, const Endpoint& to);

  /// Sends what there is. What a client does not take in time is lost, as UDP has it.
  void send();

 private:
  void add(ByteView header, ByteView rest, const Endpoint& to);

  DatagramSocket& socket_;
  DatagramSender sender_;
  RandomPool transactionIDs_;
  std::array<Bytes, maxBurst> slots_;  // which keep their room
};

}  // namespace zk
