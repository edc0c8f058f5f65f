#include "ZelkorTURN/TURNAuth.h"

#include <algorithm>

#include <fmt/format.h>

#include "Platform/Random.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk::TURNAuth {

LongTermKey longTermKey(std::string_view username, std::string_view realm,
                        std::string_view password) {
  return md5(bytesOf(fmt::format("{}:{}:{}", username, realm, password)));
}

void appendMessageIntegrity(TURNMessage& message, ByteView key) {
  const ByteView section = message.attributeSection();
  const auto header = message.header(section.size() + integritySize);
  message.append(TURNAttr::messageIntegrity, hmacSHA1(key, {header, section}));
}

bool verifyMessageIntegrity(ByteView datagram, ByteView key) {
  constexpr std::size_t headerSize = TURNMessage::headerSize;
  constexpr std::size_t attributeHeaderSize = TURNMessage::attributeHeaderSize;
  constexpr auto& cookie = TURNMessage::magicCookie;
  if (datagram.size() < headerSize + integritySize ||
      !std::equal(cookie.begin(), cookie.end(), datagram.begin() + 4)) {
    return false;
  }
  const std::size_t end = headerSize + readUInt16(datagram, 2);
  if (end > datagram.size()) {
    return false;
  }
  std::size_t offset = headerSize;
  while (offset + attributeHeaderSize <= end) {
    const std::size_t length = readUInt16(datagram, offset + 2);
    const std::size_t valueAt = offset + attributeHeaderSize;
    if (valueAt + length > end) {
      return false;
    }
    if (readUInt16(datagram, offset) == TURNAttr::messageIntegrity) {
      return length == sizeof(SHA1Digest) &&
             equalInConstantTime(hmacSHA1(key, {datagram.first(offset)}),
                                 datagram.subspan(valueAt, length));
    }
    offset = valueAt + ((length + 3) & ~std::size_t{3});
  }
  return false;
}

std::string makeNonce() {
  std::array<std::uint8_t, 16> octets{};
  if (const int status = randomBytes(octets); status != 0) {
    throw TURNAuthError::randomGenerationFailed(status);
  }
  constexpr std::string_view digits = "0123456789abcdef";
  std::string nonce;
  nonce.reserve(2 * octets.size());
  for (const std::uint8_t octet : octets) {
    nonce += digits[octet >> 4];
    nonce += digits[octet & 0x0F];
  }
  return nonce;
}

bool validateNonce(const std::string& nonce, const std::set<std::string>& issued) {
  return issued.contains(nonce);
}

}  // namespace zk::TURNAuth
