#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "ZelkorTURN/RelayInterfaces.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk {

/// One client's allocation. Permissions and channels live as long as it does.
class Allocation {
 public:
  /// More peers are acknowledged and not noted. Nothing depends on the set, and a client that has
  /// so many is not one that makes calls.
  static constexpr std::size_t maxPermissions = 4096;

  Endpoint relayed;                  // where peers find the client
  std::uint32_t lifetimeExpiry = 0;  // server clock; expired exactly when it is below now
  TransactionID creatingTxID{};

  bool isExpired(std::uint32_t now) const { return lifetimeExpiry < now; }

  void permit(const Endpoint& peer);
  /// Addresses of peers, without ports.
  const std::set<std::uint32_t>& permissions() const { return permissions_; }

  /// Binds the channel to the peer, in place of what it was bound to.
  void bind(std::uint16_t channel, const Endpoint& peer);
  /// The peer that a channel is bound to; nullptr when it is not bound.
  const Peer* peerOf(std::uint16_t channel) const;
  /// The lowest channel that is bound to a peer; absent when none is.
  std::optional<std::uint16_t> channelOf(const Endpoint& peer) const;

 private:
  std::set<std::uint32_t> permissions_;
  std::map<std::uint16_t, Peer> channels_;                    // by channel number
  std::set<std::pair<std::uint64_t, std::uint16_t>> byPeer_;  // the other way round
};

}  // namespace zk
