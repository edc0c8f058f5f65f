#pragma once

#include <map>

#include "ScriptedRelay.h"

namespace zk::fuzz {

/// What the server must do, read off RFC 5766 and kept apart from how it does it.
class ServerModel {
 public:
  static constexpr std::size_t clientCount = 3;

  struct Client {
    std::uint32_t expiry = 0;
    TransactionID txID{};
    std::string relayIP;
    std::map<std::uint16_t, TURNAttributes::Address> channels;
  };

  /// Which clients have an allocation, expired or not.
  std::array<std::optional<Client>, clientCount> clients;
  /// All nonces that were ever issued, and when.
  std::map<std::string, std::uint32_t> nonces;
  /// What the latest successful Refresh was granted.
  std::uint32_t granted = 0;
  std::uint32_t now = 0;

  bool isAlive(std::size_t who) const { return clients[who] && clients[who]->expiry >= now; }

  /// What a Send indication, or a datagram that may be ChannelData, sends to a peer.
  std::optional<Datagram> dueOf(std::size_t who, const TURNMessage& indication) const;
  std::optional<Datagram> dueOf(std::size_t who, ByteView datagram) const;

  /// The error that the gate must answer, 0 when the request passes. `isGenuine`: it was signed
  /// with the right key and not changed since.
  int gateError(const TURNMessage& message, bool isGenuine) const;

  /// The error that a request which passed the gate must be answered with. 0 for success, which
  /// changes the model.
  int outcome(std::size_t who, const TURNMessage& message, const Script& script);

  /// What is gone after a successful Allocate.
  void sweep();
};

}  // namespace zk::fuzz
