#pragma once

#include <array>
#include <cstdint>
#include <memory>

namespace zk {

/// How many STUN messages are looked at from those who have no record: so many a second from each
/// source port, and so many in all, so that a flood from one socket costs nobody else anything.
/// Who is dropped repeats its request (RFC 5389 section 7.2.1). One thread.
class StrangerRation {
 public:
  static constexpr std::uint64_t perSecond = 500;  // from one port
  static constexpr std::uint64_t depth = 2000;     // that may come at once
  static constexpr std::uint64_t perSecondInAll = 5000;
  static constexpr std::uint64_t depthInAll = 20'000;

  /// Whether a message from `port` is looked at. `now`: nanoseconds of a clock that only runs
  /// forward, since the server's start.
  bool admits(std::uint16_t port, std::uint64_t now);

 private:
  // When each bucket will be full again: so a full one is just a time that is past.
  // One array by port: 512 KiB, and no lookup.
  const std::unique_ptr<std::array<std::uint64_t, 65536>> fullAt_ =
      std::make_unique<std::array<std::uint64_t, 65536>>();
  std::uint64_t allFullAt_ = 0;
};

}  // namespace zk
