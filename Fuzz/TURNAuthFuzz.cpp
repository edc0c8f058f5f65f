// MESSAGE-INTEGRITY: a datagram verifies just when its first one is the HMAC-SHA1, as the crypto
// library computes it, of all that stands before it; what we sign verifies; no octet of it can
// change.

#include <stdexcept>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "Fuzz.h"
#include "ZelkorTURN/TURNAuth.h"

namespace zk::fuzz {
namespace {

Bytes hmac(ByteView key, ByteView text) {
  Bytes mac(20);
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), text.data(), text.size(), mac.data(),
       nullptr);
  return mac;
}

// Where the first MESSAGE-INTEGRITY stands that can be judged.
std::optional<std::size_t> integrityAt(ByteView datagram) {
  if (datagram.size() < 44 || !areEqual(datagram.subspan(4, 4), bytesOf("\x21\x12\xA4\x42"))) {
    return std::nullopt;
  }
  const std::size_t end = 20U + readUInt16(datagram, 2);
  if (end > datagram.size()) {
    return std::nullopt;
  }
  for (const AttributePlace& place : AttributeWalk(datagram, 20, end).places) {
    if (place.type == TURNAttr::messageIntegrity) {
      return place.length == 20 ? std::optional(place.at) : std::nullopt;
    }
  }
  return std::nullopt;
}

void checkSigning(TURNMessage message, ByteView key, std::size_t position, std::uint8_t change) {
  const bool wasSigned = message.first(TURNAttr::messageIntegrity).has_value();
  try {
    TURNAuth::appendMessageIntegrity(message, key);
  } catch (const std::length_error&) {
    return;
  }
  Bytes wire = message.encode();
  if (wasSigned) {
    return;  // the first one counts, and run() has judged it
  }
  require(TURNAuth::verifyMessageIntegrity(wire, key), "what is signed verifies");
  require(areEqual(ByteView(wire).last(20), hmac(key, ByteView(wire).first(wire.size() - 24))),
          "MESSAGE-INTEGRITY is last and covers all before it, under the final length");
  Bytes otherKey(key.begin(), key.end());
  otherKey.resize(std::max<std::size_t>(key.size(), 1));
  otherKey[position % otherKey.size()] ^= change;
  require(!TURNAuth::verifyMessageIntegrity(wire, otherKey), "another key does not verify");
  require(!TURNAuth::verifyMessageIntegrity(ByteView(wire).first(position % wire.size()), key),
          "a cut datagram does not verify");
  wire[position % wire.size()] ^= change;
  require(!TURNAuth::verifyMessageIntegrity(wire, key), "a changed octet does not verify");
}

}  // namespace

void run(ByteView bytes) {
  Input input(bytes);
  const ByteView key = input.take(input.octet() % 65);
  const std::uint16_t position = input.number();
  const std::uint8_t change = std::max<std::uint8_t>(input.octet(), 1);
  const ByteView datagram = input.rest();

  const auto at = integrityAt(datagram);
  const bool isSigned =
      at && areEqual(datagram.subspan(*at + 4, 20), hmac(key, datagram.first(*at)));
  require(TURNAuth::verifyMessageIntegrity(datagram, key) == isSigned,
          "verifies just when it was signed");
  if (at) {
    Bytes repaired(datagram.begin(), datagram.end());
    const Bytes mac = hmac(key, datagram.first(*at));
    std::copy(mac.begin(), mac.end(), repaired.begin() + static_cast<std::ptrdiff_t>(*at) + 4);
    require(TURNAuth::verifyMessageIntegrity(repaired, key), "the right HMAC verifies");
    repaired[position % (*at + 24)] ^= change;
    require(!TURNAuth::verifyMessageIntegrity(repaired, key), "any other does not");
  }
  if (const auto message = TURNMessage::decode(datagram)) {
    checkSigning(*message, key, position, change);
  }

  const std::string_view text = textOf(datagram.first(std::min<std::size_t>(datagram.size(), 99)));
  std::array<std::uint8_t, 16> digest;
  EVP_Digest(bytesOf(std::string(text) + "::" + std::string(text)).data(), 2 * text.size() + 2,
             digest.data(), nullptr, EVP_md5(), nullptr);
  require(TURNAuth::longTermKey(text, "", text) == digest, "the key is MD5 of user:realm:password");
}

std::vector<Bytes> seeds() {
  const auto key = TURNAuth::longTermKey("user", "realm", "password");
  const Bytes front = joined({Bytes{16}, key, Bytes{0, 21, 0x80}});
  TURNMessage message(TURNMethod::refresh, TURNClass::request, {9, 9, 9});
  const Bytes bare = joined({front, message.encode()});
  message.append(TURNAttr::username, bytesOf("user"));
  TURNMessage shortOne = message;
  shortOne.append(TURNAttr::messageIntegrity, Bytes(16));
  TURNAuth::appendMessageIntegrity(message, key);
  const Bytes once = joined({front, message.encode()});
  message.append(0x8028, Bytes(4));
  TURNAuth::appendMessageIntegrity(message, key);
  return {bare, once, joined({front, message.encode()}), joined({front, shortOne.encode()})};
}

}  // namespace zk::fuzz
