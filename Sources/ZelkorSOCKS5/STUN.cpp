#include "ZelkorSOCKS5/STUN.h"

#include <algorithm>

#include "Platform/Random.h"

namespace zk::STUN {
namespace {

constexpr std::uint16_t bindingSuccess = 0x0101;
constexpr std::uint16_t xorMappedAddress = 0x0020;
constexpr std::uint8_t familyIPv4 = 0x01;
constexpr std::uint32_t addressMask = 0x2112A442;  // the magic cookie
constexpr std::uint16_t portMask = addressMask >> 16;

}  // namespace

XorAddress encodeXorAddress(const Endpoint& endpoint) {
  XorAddress value{0x00, familyIPv4};
  writeUInt16(&value[2], endpoint.port ^ portMask);
  const auto octets = Endpoint{endpoint.address ^ addressMask}.octets();
  std::copy(octets.begin(), octets.end(), value.begin() + 4);
  return value;
}

std::optional<Endpoint> decodeXorAddress(ByteView value) {
  if (value.size() < sizeof(XorAddress) || value[1] != familyIPv4) {
    return std::nullopt;
  }
  return Endpoint{readUInt32(value, 4) ^ addressMask,
                  static_cast<std::uint16_t>(readUInt16(value, 2) ^ portMask)};
}

BindingRequest makeBindingRequest() {
  BindingRequest made{
      {0x00, 0x01, 0x00, 0x00, magicCookie[0], magicCookie[1], magicCookie[2], magicCookie[3]}, {}};
  randomBytes(made.txID);
  std::copy(made.txID.begin(), made.txID.end(), made.request.begin() + 8);
  return made;
}

std::optional<Endpoint> parseXorMappedAddress(ByteView message, ByteView txID) {
  if (message.size() < headerSize || readUInt16(message, 0) != bindingSuccess ||
      !std::equal(txID.begin(), txID.end(), message.begin() + 8, message.begin() + headerSize)) {
    return std::nullopt;
  }
  ByteView rest = message.subspan(headerSize);
  while (const auto attribute = takeAttribute(rest)) {
    if (attribute->type == xorMappedAddress) {
      if (const auto address = decodeXorAddress(attribute->value)) {
        return address;
      }
    }
  }
  return std::nullopt;
}

}  // namespace zk::STUN
