#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "Base/Bytes.h"

namespace zk {

/// ChannelData, the short form of a datagram to or from a peer (RFC 5766 section 11.4). Pure.
namespace ChannelData {

inline constexpr std::size_t headerSize = 4;
using Header = std::array<std::uint8_t, headerSize>;

/// The channel numbers that a client may bind (section 11).
inline constexpr std::uint16_t lowest = 0x4000;
inline constexpr std::uint16_t highest = 0x7FFF;

/// What goes in front of a payload of at most 65,535 octets. Over UDP nothing need follow it
/// (section 11.5): the datagram ends where the payload does.
inline Header header(std::uint16_t channel, ByteView payload) {
  Header made;
  writeUInt16(&made[0], channel);
  writeUInt16(&made[2], static_cast<std::uint16_t>(payload.size()));
  return made;
}

struct Decoded {
  std::uint16_t channel;
  ByteView payload;  // within the datagram
};

/// What a datagram carries, without the padding that a client may have added; absent when it is
/// cut short.
inline std::optional<Decoded> decode(ByteView datagram) {
  if (datagram.size() < headerSize) {
    return std::nullopt;
  }
  const std::size_t length = readUInt16(datagram, 2);
  if (datagram.size() < headerSize + length) {
    return std::nullopt;
  }
  return Decoded{readUInt16(datagram, 0), datagram.subspan(headerSize, length)};
}

}  // namespace ChannelData
}  // namespace zk
