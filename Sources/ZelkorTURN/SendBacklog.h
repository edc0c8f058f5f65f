#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// Datagrams that the system did not take at once, in order. One thread.
class SendBacklog {
 public:
  /// So much waits at most, in octets of payload, and so long. A key frame into a thin uplink fits;
  /// what is older is of no use to a call.
  static constexpr std::size_t maxOctets = 1 << 20;
  static constexpr std::chrono::milliseconds maxAge{300};

  bool isEmpty() const { return waiting_.empty(); }
  /// Adds a copy. False when there is no room for it. `now`: nanoseconds of the loop's clock.
  bool add(const PeerDatagram& datagram, std::uint64_t now);
  /// The first ones, `most` at most; good until pop().
  std::vector<PeerDatagram> front(std::size_t most) const;
  void pop(std::size_t count);
  /// How many of the first ones are too old by now.
  std::size_t countStale(std::uint64_t now) const;

 private:
  struct Waiting {
    Bytes payload;
    Peer peer;
    std::uint64_t since;
  };

  std::deque<Waiting> waiting_;
  std::size_t octets_ = 0;
};

}  // namespace zk
