#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace zk {

/// Octets that are owned, and octets that somebody else owns at least until the call returns.
using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// The octets of a text.
inline ByteView bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// A header and what follows it in one buffer, with one allocation.
inline Bytes concatenated(ByteView header, ByteView rest) {
  Bytes whole(header.size() + rest.size());
  std::copy(header.begin(), header.end(), whole.begin());
  std::copy(rest.begin(), rest.end(), whole.begin() + static_cast<std::ptrdiff_t>(header.size()));
  return whole;
}

/// Two octets at `at`, big-endian. The caller has checked that they are there.
inline std::uint16_t readUInt16(ByteView bytes, std::size_t at) {
  return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

/// The same for four octets.
inline std::uint32_t readUInt32(ByteView bytes, std::size_t at) {
  return static_cast<std::uint32_t>(readUInt16(bytes, at)) << 16 | readUInt16(bytes, at + 2);
}

inline void writeUInt16(std::uint8_t* to, std::uint16_t value) {
  to[0] = static_cast<std::uint8_t>(value >> 8);
  to[1] = static_cast<std::uint8_t>(value);
}

}  // namespace zk
