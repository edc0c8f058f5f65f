#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "Platform/Bytes.h"

namespace zk::bench {

/// One client's end of a relay: a connected UDP socket, what goes in front of a payload, and where
/// the payload starts in what comes back.
struct Endpoint {
  int socket = -1;
  /// The octets of a datagram around `payload` zeros.
  std::function<Bytes(std::size_t payload)> frame;
  std::size_t payloadAt = 0;  // in the datagrams of `frame`
  std::size_t answerAt = 0;   // in the datagrams that come back
};

struct LoadResult {
  std::uint64_t roundTrips = 0;
  std::uint64_t losses = 0;
  double seconds = 0;
  double p50 = 0;  // microseconds
  double p99 = 0;
};

/// Keeps `outstanding` round trips of `payload` octets (16 at least) under way for `duration`,
/// spread over the endpoints in turn, `burst` at a time. What does not come back within a fifth of
/// a second is lost.
LoadResult runLoad(const std::vector<Endpoint>& endpoints, std::size_t payload,
                   unsigned outstanding, std::chrono::milliseconds duration, unsigned burst = 1);

}  // namespace zk::bench
