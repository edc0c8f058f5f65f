#include "ZelkorSOCKS5/STUN.h"

#include <algorithm>

#include <fmt/format.h>

#include "Platform/IPv4.h"
#include "Platform/Random.h"

namespace zk::STUN {
namespace {

constexpr std::array<std::uint8_t, 4> magicCookie{0x21, 0x12, 0xA4, 0x42};
constexpr std::size_t headerSize = 20;
constexpr std::uint16_t bindingSuccess = 0x0101;
constexpr std::uint16_t xorMappedAddress = 0x0020;
constexpr std::uint8_t familyIPv4 = 0x01;

std::string decodedAddress(ByteView value) {
  std::array<std::uint8_t, 4> octets;
  for (std::size_t i = 0; i < octets.size(); ++i) {
    octets[i] = value[4 + i] ^ magicCookie[i];
  }
  const int port = readUInt16(value, 2) ^ readUInt16(magicCookie, 0);
  return fmt::format("{}:{}", formatIPv4(octets.data()), port);
}

}  // namespace

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
  std::size_t at = headerSize;
  while (message.size() >= at + 4) {
    const std::size_t length = readUInt16(message, at + 2);
    if (message.size() < at + 4 + length) {
      return std::nullopt;
    }
    const ByteView value = message.subspan(at + 4, length);
    if (readUInt16(message, at) == xorMappedAddress && length >= 8 && value[1] == familyIPv4) {
      return decodedAddress(value);
    }
    at += 4 + ((length + 3) & ~std::size_t{3});
  }
  return std::nullopt;
}

}  // namespace zk::STUN
