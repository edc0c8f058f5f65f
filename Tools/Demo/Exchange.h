#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Loopback/TURNClient.h"

namespace zk::demo {

/// How the client hands its datagrams to the server.
enum class Form { sendIndication, channelData };

/// Datagrams under way at any time: few enough that no buffer on the road overflows.
inline constexpr std::size_t windowSize = 16;
/// Octets of payload, about one packet of speech.
inline constexpr std::size_t payloadSize = 160;

/// The outcome of one exchange.
struct ExchangeResult {
  std::size_t sent = 0;
  std::size_t lost = 0;     // not back within the patience
  std::size_t strange = 0;  // came, but was no datagram of ours, or came twice
  std::vector<std::chrono::microseconds> roundTrips;  // sorted
  std::chrono::microseconds duration{0};

  /// The round-trip time that `share` (0 to 1) of the datagrams did not exceed. There must be one.
  std::chrono::microseconds percentile(double share) const;
};

/// How many of `count` datagrams may be lost before there is no use in sending more.
constexpr std::size_t tolerableLoss(std::size_t count) {
  return count / 10;
}

/// Sends `count` datagrams to an echoing peer, `windowSize` at a time, and checks what comes back
/// octet by octet. A window of which nothing more comes for two seconds is counted as lost; past
/// the tolerable loss nothing more is sent. Shows a progress bar.
ExchangeResult exchange(loopback::TURNClient& client, Form form,
                        const TURNAttributes::Address& peer, std::uint16_t channel,
                        std::size_t count);

}  // namespace zk::demo
