#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace zk {

/// Octets that are owned, and octets that somebody else owns for at least as long as the call.
using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// The octets of a text.
inline ByteView bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// A header and what follows it in one piece, with one allocation.
inline Bytes concatenated(ByteView header, ByteView rest) {
  Bytes whole(header.size() + rest.size());
  std::copy(header.begin(), header.end(), whole.begin());
  std::copy(rest.begin(), rest.end(), whole.begin() + static_cast<std::ptrdiff_t>(header.size()));
  return whole;
}

/// A datagram put together in place, on the stack of whoever sends it: a header and a payload. What
/// is not written costs nothing.
class DatagramBuffer {
 public:
  /// The largest payload of a UDP datagram over IPv4, rounded up, is room for any header with it.
  static constexpr std::size_t capacity = 65536;

  /// Header and payload in one piece, to be used as long as this lives. Payloads that do not fit
  /// the room, which no socket would send either, are cut.
  ByteView join(ByteView header, ByteView payload) {
    payload = payload.first(std::min(payload.size(), capacity - header.size()));
    std::memcpy(octets_.data(), header.data(), header.size());
    if (!payload.empty()) {
      std::memcpy(octets_.data() + header.size(), payload.data(), payload.size());
    }
    return {octets_.data(), header.size() + payload.size()};
  }

 private:
  std::array<std::uint8_t, capacity> octets_;
};

/// Two octets at `at`, big-endian. The caller has checked that they are there.
inline std::uint16_t readUInt16(ByteView bytes, std::size_t at) {
  return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

inline void writeUInt16(std::uint8_t* to, std::uint16_t value) {
  to[0] = static_cast<std::uint8_t>(value >> 8);
  to[1] = static_cast<std::uint8_t>(value);
}

}  // namespace zk
