#include "ZelkorTURN/Allocation.h"

namespace zk {

void Allocation::permit(const Endpoint& peer) {
  if (permissions_.size() < maxPermissions) {
    permissions_.insert(peer.address);
  }
}

void Allocation::bind(std::uint16_t channel, const Endpoint& peer) {
  const auto [entry, isNew] = channels_.try_emplace(channel, peer);
  if (!isNew) {
    byPeer_.erase({entry->second.endpoint.number(), channel});
    entry->second = Peer(peer);
  }
  byPeer_.emplace(peer.number(), channel);
}

const Peer* Allocation::peerOf(std::uint16_t channel) const {
  const auto bound = channels_.find(channel);
  return bound == channels_.end() ? nullptr : &bound->second;
}

std::optional<std::uint16_t> Allocation::channelOf(const Endpoint& peer) const {
  const auto bound = byPeer_.lower_bound({peer.number(), 0});
  return bound != byPeer_.end() && bound->first == peer.number() ? std::optional(bound->second)
                                                                 : std::nullopt;
}

}  // namespace zk
