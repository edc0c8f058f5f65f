#include "ZelkorTURN/PeerBatch.h"

#include <algorithm>

namespace zk {

void PeerBatch::add(TURNRelay& relay, ByteView payload, const Peer& peer) {
  if (count_ == maxBurst) {
    send();
  }
  relays_[count_] = &relay;
  datagrams_[count_++] = {payload, peer};
}

void PeerBatch::send() {
  bringTogether();
  for (std::size_t first = 0, end = 0; first < count_; first = end) {
    while (end < count_ && relays_[end] == relays_[first]) {
      ++end;
    }
    relays_[first]->sendAll(std::span(datagrams_).subspan(first, end - first));
  }
  count_ = 0;
}

// What goes to one relay stands together then. Mostly it does anyway.
void PeerBatch::bringTogether() {
  for (std::size_t i = 1; i < count_; ++i) {
    std::size_t behind = i;
    while (behind > 0 && relays_[behind - 1] != relays_[i]) {
      --behind;
    }
    if (behind > 0 && behind < i) {
      const auto move = [&](auto& array) { std::rotate(&array[behind], &array[i], &array[i] + 1); };
      move(relays_);
      move(datagrams_);
    }
  }
}

}  // namespace zk
