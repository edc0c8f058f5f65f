#include "ZelkorTURN/TURNAuth.h"

#include <algorithm>

#include <fmt/format.h>

#include "Platform/Random.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk::TURNAuth {
namespace {

constexpr std::size_t fingerprintSize = TURNMessage::attributeHeaderSize + 4;
// So that a FINGERPRINT differs from a CRC-32 of the application's own (RFC 5389 section 15.5).
constexpr std::uint32_t fingerprintMask = 0x5354554E;

// As in ITU V.42, bit by bit: a few microseconds for each request of a client that asked for it.
std::uint32_t crc32(ByteView octets) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t octet : octets) {
    crc ^= octet;
    for (int bit = 0; bit < 8; ++bit) {
      crc = crc >> 1 ^ (crc % 2 == 1 ? 0xEDB88320 : 0);
    }
  }
  return ~crc;
}

// The FINGERPRINT that belongs behind these octets.
std::array<std::uint8_t, fingerprintSize> fingerprintOf(ByteView octets) {
  const std::uint32_t value = crc32(octets) ^ fingerprintMask;
  std::array<std::uint8_t, fingerprintSize> attribute;
  writeUInt16(&attribute[0], TURNAttr::fingerprint);
  writeUInt16(&attribute[2], 4);
  writeUInt16(&attribute[4], static_cast<std::uint16_t>(value >> 16));
  writeUInt16(&attribute[6], static_cast<std::uint16_t>(value));
  return attribute;
}

}  // namespace

LongTermKey longTermKey(std::string_view username, std::string_view realm,
                        std::string_view password) {
  return md5(bytesOf(fmt::format("{}:{}:{}", username, realm, password)));
}

void appendMessageIntegrity(TURNMessage& message, ByteView key) {
  const ByteView section = message.attributeSection();
  const auto header = message.header(section.size() + integritySize);
  message.append(TURNAttr::messageIntegrity, hmacSHA1(key, {header, section}));
}

bool verifyMessageIntegrity(ByteView datagram, ByteView key, bool acceptFingerprint) {
  constexpr auto& cookie = TURNMessage::magicCookie;
  if (datagram.size() < TURNMessage::headerSize ||
      !std::equal(cookie.begin(), cookie.end(), datagram.begin() + 4)) {
    return false;
  }
  const std::size_t size = TURNMessage::headerSize + readUInt16(datagram, 2);
  if (size > datagram.size()) {
    return false;
  }
  const ByteView message = datagram.first(size);
  ByteView rest = message.subspan(TURNMessage::headerSize);
  auto attribute = STUN::takeAttribute(rest);
  while (attribute && attribute->type != TURNAttr::messageIntegrity) {
    attribute = STUN::takeAttribute(rest);
  }
  if (!attribute || attribute->value.size() != sizeof(SHA1Digest)) {
    return false;
  }
  const ByteView covered = message.first(size - rest.size() - integritySize);
  std::array<std::uint8_t, 2> length{message[2], message[3]};
  if (acceptFingerprint && rest.size() == fingerprintSize &&
      readUInt16(rest, 0) == TURNAttr::fingerprint) {
    const auto wanted = fingerprintOf(message.first(size - fingerprintSize));
    if (!std::equal(wanted.begin(), wanted.end(), rest.begin())) {
      return false;
    }
    writeUInt16(length.data(), static_cast<std::uint16_t>(readUInt16(length, 0) - fingerprintSize));
  }
  return equalInConstantTime(hmacSHA1(key, {covered.first(2), length, covered.subspan(4)}),
                             attribute->value);
}

std::string makeNonce(RandomSource source) {
  std::array<std::uint8_t, 16> octets{};
  if (const int status = source(octets); status != 0) {
    throw TURNAuthError::randomGenerationFailed(status);
  }
  return fmt::format("{:02x}", fmt::join(octets, ""));
}

bool validateNonce(const std::string& nonce, const std::set<std::string>& issued) {
  return issued.contains(nonce);
}

}  // namespace zk::TURNAuth
