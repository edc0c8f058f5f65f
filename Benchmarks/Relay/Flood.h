#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Contestants.h"

namespace zk::bench {

/// One way to bother the daemon.
struct FloodKind {
  enum class Path {
    dropped,  // from a local process, and not worth an answer
    request,  // from a local process; most are too many to be answered
    byProxy,  // comes to the proxy through the daemon, and spoiled back
  };
  std::string name;
  Bytes datagram;  // what the daemon gets of it
  Path path;
};

/// What becomes of a payload of so many octets at the far side that spoil() handles: a frame that
/// no relay can read. All others are sent back as they are.
inline constexpr std::size_t spoiledSize = 333;
bool spoil(std::span<std::uint8_t> datagram, const Endpoint& from);

/// What a stranger may send: octets of no protocol, broken messages, data that belongs to nobody,
/// requests without credentials or with a wrong signature, and what a proxy may send.
std::vector<FloodKind> badInput(const Contestant& daemon);

/// Sends `count` datagrams of that kind through `daemon`, a daemon with one channel, in bursts that
/// fit any socket's buffer: a round trip on the channel follows each of them. Returns how many
/// datagrams the daemon got in all, those of the round trips included. Throws when one of these is
/// lost.
std::uint64_t flood(const Contestant& daemon, const FloodKind& kind, std::uint64_t count);

}  // namespace zk::bench
