#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "Base/Bytes.h"
#include "Loopback/TURNClient.h"

namespace zk::loopback {

/// One client's end of a relay, behind which somebody sends back what he gets: a connected UDP
/// socket, and how payloads travel. They end their datagrams, but for padding that may follow.
struct Endpoint {
  int socket = -1;
  std::size_t payloadAt = 0;                     // both ways
  std::function<Bytes(ByteView payload)> frame;  // the whole datagram

  static Endpoint channelData(const TURNClient& client, std::uint16_t channel);
  /// No channel may be bound to the peer: it would answer on that.
  static Endpoint indications(const TURNClient& client, const TURNAttributes::Address& peer);
};

struct LoadPlan {
  std::size_t payload = 200;              // octets, 16 at least
  unsigned outstanding = 32;              // round trips under way
  std::uint64_t count = 0;                // datagrams to send; 0: no limit
  std::chrono::milliseconds duration{0};  // 0: no limit
  unsigned burst = 1;                     // to one endpoint before the next one's turn
  /// When nothing comes for so long, what is under way is given up; after five times in a row
  /// nothing more is sent.
  std::chrono::milliseconds patience{200};
  std::function<void(std::uint64_t done)> progress{};
};

struct LoadResult {
  std::uint64_t sent = 0;
  std::uint64_t strange = 0;  // came, but was no datagram of ours, or came twice
  double seconds = 0;
  std::vector<float> times;  // of the round trips, microseconds, sorted

  std::uint64_t roundTrips() const { return times.size(); }
  std::uint64_t losses() const { return sent - times.size(); }
  /// The time that `share` (0 to 1) of the round trips did not pass; 0 without any.
  double percentile(double share) const;
};

/// Keeps `outstanding` round trips under way, spread over the endpoints in turn, and compares what
/// comes back octet by octet.
LoadResult runLoad(const std::vector<Endpoint>& endpoints, const LoadPlan& plan);

}  // namespace zk::loopback
