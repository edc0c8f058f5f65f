#include "ZelkorSOCKS5/STUN.h"

#include <algorithm>

#include <fmt/format.h>

#include "Base/IPv4.h"
#include "Platform/Random.h"

namespace zk::STUN {
namespace {

constexpr std::uint16_t bindingSuccess = 0x0101;
constexpr std::uint16_t xorMappedAddress = 0x0020;
constexpr std::uint8_t familyIPv4 = 0x01;
// The top 16 bits of the magic cookie.
constexpr std::uint16_t portMask = magicCookie[0] << 8 | magicCookie[1];

}  // namespace

std::optional<XorAddress> encodeXorAddress(std::string_view ip, std::uint16_t port) {
  const auto octets = parseIPv4(ip);
  if (!octets) {
    return std::nullopt;
  }
  XorAddress value{0x00, familyIPv4};
  writeUInt16(&value[2], port ^ portMask);
  for (std::size_t i = 0; i < octets->size(); ++i) {
    value[4 + i] = (*octets)[i] ^ magicCookie[i];
  }
  return value;
}

std::optional<Address> decodeXorAddress(ByteView value) {
  if (value.size() < sizeof(XorAddress) || value[1] != familyIPv4) {
    return std::nullopt;
  }
  IPv4Octets octets;
  for (std::size_t i = 0; i < octets.size(); ++i) {
    octets[i] = value[4 + i] ^ magicCookie[i];
  }
  return Address{formatIPv4(octets.data()),
                 static_cast<std::uint16_t>(readUInt16(value, 2) ^ portMask)};
}

BindingRequest makeBindingRequest() {
  BindingRequest made{
      {0x00, 0x01, 0x00, 0x00, magicCookie[0], magicCookie[1], magicCookie[2], magicCookie[3]}, {}};
  randomBytes(made.txID);
  std::copy(made.txID.begin(), made.txID.end(), made.request.begin() + 8);
  return made;
}

std::optional<std::string> parseXorMappedAddress(ByteView message, ByteView txID) {
  if (message.size() < headerSize || readUInt16(message, 0) != bindingSuccess ||
      !std::equal(txID.begin(), txID.end(), message.begin() + 8, message.begin() + headerSize)) {
    return std::nullopt;
  }
  ByteView rest = message.subspan(headerSize);
  while (const auto attribute = takeAttribute(rest)) {
    if (attribute->type == xorMappedAddress) {
      if (const auto address = decodeXorAddress(attribute->value)) {
        return fmt::format("{}:{}", address->ip, address->port);
      }
    }
  }
  return std::nullopt;
}

}  // namespace zk::STUN
