#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"

namespace zk {

/// The STUN message format (RFC 5389 sections 6 and 15), as far as the client side of a proxy and
/// the TURN server share it, and the one transaction that the former needs: a Binding request
/// without attributes, and the XOR-MAPPED-ADDRESS of its success response. Pure, any thread.
namespace STUN {

inline constexpr std::size_t headerSize = 20;
inline constexpr std::size_t attributeHeaderSize = 4;
inline constexpr std::array<std::uint8_t, 4> magicCookie{0x21, 0x12, 0xA4, 0x42};

/// Values are padded to a multiple of 4.
constexpr std::size_t paddedLength(std::size_t length) {
  return (length + 3) & ~std::size_t{3};
}

/// One attribute: its type and its value without padding. The value belongs to the message.
struct Attribute {
  std::uint16_t type = 0;
  ByteView value;
};

/// Takes an attribute off the front of `rest`, with its padding or what is there of it. Absent,
/// with `rest` as it was, when the header or the value is not all there: all is well when that
/// leaves under 4 octets, and an attribute does not fit when it leaves more.
inline std::optional<Attribute> takeAttribute(ByteView& rest) {
  if (rest.size() < attributeHeaderSize) {
    return std::nullopt;
  }
  const std::size_t length = readUInt16(rest, 2);
  if (rest.size() < attributeHeaderSize + length) {
    return std::nullopt;
  }
  const Attribute taken{readUInt16(rest, 0), rest.subspan(attributeHeaderSize, length)};
  rest = rest.subspan(std::min(rest.size(), attributeHeaderSize + paddedLength(length)));
  return taken;
}

/// Public servers to ask when nobody has named others. Two operators, so that one that is blocked
/// or down does not take every relay with it.
struct Server {
  const char* host;
  std::uint16_t port;
};
inline constexpr std::array<Server, 3> defaultServers{
    {{"stun.l.google.com", 19302}, {"stun1.l.google.com", 19302}, {"stun.cloudflare.com", 3478}}};

using XorAddress = std::array<std::uint8_t, 8>;

/// The value of XOR-MAPPED-ADDRESS and its kin.
XorAddress encodeXorAddress(const Endpoint& endpoint);

/// Absent for a value under 8 octets and for any family but IPv4.
std::optional<Endpoint> decodeXorAddress(ByteView value);

struct BindingRequest {
  std::array<std::uint8_t, 20> request;
  std::array<std::uint8_t, 12> txID;  // as it stands in the request
};

BindingRequest makeBindingRequest();

/// The first IPv4 XOR-MAPPED-ADDRESS in the success response to `txID` (12 octets); absent for any
/// other message, a foreign transaction ID included.
std::optional<Endpoint> parseXorMappedAddress(ByteView message, ByteView txID);

}  // namespace STUN
}  // namespace zk
