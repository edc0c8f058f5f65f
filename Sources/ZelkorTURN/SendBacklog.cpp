#include "ZelkorTURN/SendBacklog.h"

#include <algorithm>

namespace zk {

bool SendBacklog::add(const PeerDatagram& datagram, std::uint64_t now) {
  if (octets_ + datagram.payload.size() > maxOctets) {
    return false;
  }
  octets_ += datagram.payload.size();
  waiting_.push_back({{datagram.payload.begin(), datagram.payload.end()}, datagram.peer, now});
  return true;
}

std::vector<PeerDatagram> SendBacklog::front(std::size_t most) const {
  std::vector<PeerDatagram> first;
  for (std::size_t i = 0; i < std::min(most, waiting_.size()); ++i) {
    first.push_back({waiting_[i].payload, waiting_[i].peer});
  }
  return first;
}

void SendBacklog::pop(std::size_t count) {
  for (; count > 0; --count) {
    octets_ -= waiting_.front().payload.size();
    waiting_.pop_front();
  }
}

std::size_t SendBacklog::countStale(std::uint64_t now) const {
  const auto fresh = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& waiting) {
    return std::chrono::nanoseconds(now - waiting.since) <= maxAge;
  });
  return static_cast<std::size_t>(fresh - waiting_.begin());
}

}  // namespace zk
