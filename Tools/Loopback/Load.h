#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "Base/Bytes.h"
#include "Loopback/TURNClient.h"

namespace zk::loopback {

/// What became of the datagrams of a load.
struct LoadResult {
  std::uint64_t sent = 0;
  std::uint64_t strange = 0;  // came, but was no datagram of ours, or came twice
  double seconds = 0;
  std::vector<float> times;  // of those that arrived, microseconds, sorted

  std::uint64_t roundTrips() const { return times.size(); }
  std::uint64_t losses() const { return sent - times.size(); }
  /// The time that `share` (0 to 1) of them did not pass; 0 without any.
  double percentile(double share) const;
  LoadResult& operator+=(const LoadResult& other);
};

/// The books of datagrams that are sent and come back, or arrive at another place. One thread at a
/// time.
class Ledger {
 public:
  /// So many octets of a payload are the ledger's.
  static constexpr std::size_t stampSize = 16;

  Ledger();

  /// Writes the next number and the time to the beginning of a payload.
  void stamp(std::uint8_t* payload);
  /// The same for one that does not count, and only shows that what was sent before it and is not
  /// there will not come.
  void stampMarker(std::uint8_t* payload) const;
  /// Takes what has arrived. Whether it was one of ours, for the first time.
  bool take(ByteView payload);
  bool isMarked() const { return marked_; }
  /// The result so far; from here on everything begins anew, and stragglers do not count.
  LoadResult close();
  std::uint64_t sent() const { return isBack_.size(); }

 private:
  std::uint32_t run_ = 0;
  std::vector<bool> isBack_;  // by number
  LoadResult result_;
  bool marked_ = false;
};

/// One client's end of a relay, behind which somebody sends back what he gets: a connected UDP
/// socket, and how payloads travel. They end their datagrams, but for padding that may follow.
struct CallLeg {
  int socket = -1;
  std::size_t payloadAt = 0;                     // both ways
  std::function<Bytes(ByteView payload)> frame;  // the whole datagram

  static CallLeg onChannel(const TURNClient& client, std::uint16_t channel);
  /// No channel may be bound to the peer: it would answer on that.
  static CallLeg indications(const TURNClient& client, const Endpoint& peer);
};

struct LoadPlan {
  std::size_t payload = 200;              // octets, 16 at least
  unsigned outstanding = 32;              // round trips under way
  std::uint64_t count = 0;                // datagrams to send; 0: no limit
  std::chrono::milliseconds duration{0};  // 0: no limit
  unsigned burst = 1;                     // to one leg before the next one's turn
  /// When nothing comes for so long, what is under way is given up; after five times in a row
  /// nothing more is sent.
  std::chrono::milliseconds patience{200};
  std::function<void(std::uint64_t done)> progress{};
};

/// Keeps `outstanding` round trips under way, spread over the legs in turn, and compares what comes
/// back octet by octet.
LoadResult runLoad(const std::vector<CallLeg>& legs, const LoadPlan& plan);

}  // namespace zk::loopback
