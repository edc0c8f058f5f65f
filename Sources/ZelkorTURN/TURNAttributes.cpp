#include "ZelkorTURN/TURNAttributes.h"

#include <algorithm>

#include "Platform/IPv4.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::TURNAttributes {
namespace {

constexpr std::uint8_t familyIPv4 = 0x01;
constexpr std::uint8_t protocolUDP = 17;
// The top 16 bits of the magic cookie.
constexpr std::uint16_t portMask = TURNMessage::magicCookie[0] << 8 | TURNMessage::magicCookie[1];

}  // namespace

std::optional<XorAddress> encodeXorAddress(std::string_view ip, std::uint16_t port) {
  const auto octets = parseIPv4(ip);
  if (!octets) {
    return std::nullopt;
  }
  XorAddress value{0x00, familyIPv4};
  writeUInt16(&value[2], port ^ portMask);
  for (std::size_t i = 0; i < octets->size(); ++i) {
    value[4 + i] = (*octets)[i] ^ TURNMessage::magicCookie[i];
  }
  return value;
}

std::optional<Address> decodeXorAddress(ByteView value) {
  if (value.size() < sizeof(XorAddress) || value[1] != familyIPv4) {
    return std::nullopt;
  }
  std::array<std::uint8_t, 4> octets;
  for (std::size_t i = 0; i < octets.size(); ++i) {
    octets[i] = value[4 + i] ^ TURNMessage::magicCookie[i];
  }
  return Address{formatIPv4(octets.data()),
                 static_cast<std::uint16_t>(readUInt16(value, 2) ^ portMask)};
}

Bytes encodeErrorCode(const ErrorCode& error) {
  Bytes value(4 + error.reason.size());
  value[2] = static_cast<std::uint8_t>(error.code / 100);
  value[3] = static_cast<std::uint8_t>(error.code % 100);
  std::copy(error.reason.begin(), error.reason.end(), value.begin() + 4);
  return value;
}

std::optional<int> decodeErrorCode(ByteView value) {
  if (value.size() < 4) {
    return std::nullopt;
  }
  return value[2] * 100 + value[3];
}

bool isUDPTransport(ByteView value) {
  return !value.empty() && value[0] == protocolUDP;
}

std::optional<std::uint32_t> decodeLifetime(ByteView value) {
  if (value.size() < 4) {
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(readUInt16(value, 0)) << 16 | readUInt16(value, 2);
}

std::optional<std::uint16_t> decodeChannelNumber(ByteView value) {
  if (value.size() < 2) {
    return std::nullopt;
  }
  return readUInt16(value, 0);
}

std::optional<std::string_view> decodeNonce(ByteView value) {
  if (std::any_of(value.begin(), value.end(), [](std::uint8_t octet) { return octet >= 0x80; })) {
    return std::nullopt;
  }
  return std::string_view(reinterpret_cast<const char*>(value.data()), value.size());
}

}  // namespace zk::TURNAttributes
