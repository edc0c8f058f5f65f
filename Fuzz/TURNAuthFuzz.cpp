// MESSAGE-INTEGRITY: a datagram verifies just when its first one is the HMAC-SHA1 of all that
// stands before it; what we sign verifies; no octet of it can change; and a FINGERPRINT behind it
// never makes anything pass that would not pass without it.

#include <stdexcept>

#include "Fuzz.h"
#include "ZelkorTURN/TURNAuth.h"

namespace zk::fuzz {
namespace {

using namespace TURNAuth;

// Where the first MESSAGE-INTEGRITY stands that can be judged.
std::optional<std::size_t> integrityAt(ByteView datagram) {
  if (datagram.size() < 20 || !areEqual(datagram.subspan(4, 4), bytesOf("\x21\x12\xA4\x42")) ||
      20U + readUInt16(datagram, 2) > datagram.size()) {
    return std::nullopt;
  }
  for (const auto& place : AttributeWalk(datagram, 20, 20U + readUInt16(datagram, 2)).places) {
    if (place.type == TURNAttr::messageIntegrity) {
      return place.value.size() == 20 ? std::optional(place.at) : std::nullopt;
    }
  }
  return std::nullopt;
}

// Without the eight octets of a FINGERPRINT at its end.
Bytes shortened(ByteView datagram) {
  Bytes message = joined({datagram.first(12U + readUInt16(datagram, 2))});
  writeUInt16(&message[2], static_cast<std::uint16_t>(readUInt16(message, 2) - 8));
  return message;
}

}  // namespace

void run(ByteView bytes) {
  Input input(bytes);
  const Bytes key = joined({input.take(1 + input.octet() % 64U), Bytes(1)});
  const std::size_t position = input.number();
  const std::uint8_t change = std::max<std::uint8_t>(input.octet(), 1);
  const ByteView datagram = input.rest();
  Bytes otherKey = key;
  otherKey[position % key.size()] ^= change;

  const auto at = integrityAt(datagram);
  const bool isSigned =
      at && areEqual(datagram.subspan(*at + 4, 20), hmacSHA1(key, {datagram.first(*at)}));
  require(verifyMessageIntegrity(datagram, key) == isSigned, "verifies just when it was signed");
  const bool isAccepted = verifyMessageIntegrity(datagram, key, true);
  const bool hasFingerprint = at && *at + 32 == 20U + readUInt16(datagram, 2) &&
                              readUInt16(datagram, *at + 24) == TURNAttr::fingerprint;
  require(hasFingerprint ? !isAccepted || verifyMessageIntegrity(shortened(datagram), key)
                         : isAccepted == isSigned,
          "a FINGERPRINT vouches for nothing but itself");
  if (isAccepted && hasFingerprint) {
    Bytes changed = joined({datagram});
    changed[position % (*at + 32)] ^= change;
    require(!verifyMessageIntegrity(changed, key, true), "a changed octet does not verify");
  }

  auto message = TURNMessage::decode(datagram);
  if (!message || message->first(TURNAttr::messageIntegrity)) {
    return;
  }
  try {
    appendMessageIntegrity(*message, key);
  } catch (const std::length_error&) {
    return;
  }
  Bytes wire = message->encode();
  for (const bool acceptFingerprint : {false, true}) {
    require(verifyMessageIntegrity(wire, key, acceptFingerprint), "what is signed verifies");
    require(!verifyMessageIntegrity(wire, otherKey, acceptFingerprint), "by its key only");
    require(!verifyMessageIntegrity(ByteView(wire).first(position % wire.size()), key,
                                    acceptFingerprint),
            "a cut datagram does not verify");
  }
  wire[position % wire.size()] ^= change;
  require(!verifyMessageIntegrity(wire, key), "a changed octet does not verify");
}

std::vector<Bytes> seeds() {
  // RFC 5769 section 2.1, behind its key.
  const Bytes fingerprinted =
      joined({Bytes{21}, bytesOf("VOkJxbRl1RmTxUk/WvJxBt"), Bytes{0, 21, 0x80},
              bytesOf(std::string_view(
                  "\0\x01\0\x58\x21\x12\xa4\x42\xb7\xe7\xa7\x01\xbc\x34\xd6\x86\xfa\x87\xdf\xae"
                  "\x80\x22\0\x10STUN test client\0\x24\0\x04\x6e\0\x01\xff"
                  "\x80\x29\0\x08\x93\x2f\xf9\xb1\x51\x26\x3b\x36\0\x06\0\x09\x65vtj:h6vY   "
                  "\0\x08\0\x14\x9a\xea\xa7\x0c\xbf\xd8\xcb\x56\x78\x1e\xf2\xb5\xb2\xd3\xf2\x49\xc1"
                  "\xb5\x71"
                  "\xa2\x80\x28\0\x04\xe5\x7a\x3b\xcf",
                  108))});
  const Bytes key = joined({Bytes(16, 7), Bytes(1)});
  const Bytes front = joined({Bytes{15}, Bytes(16, 7), Bytes{0, 21, 0x80}});
  TURNMessage message(TURNMethod::refresh, TURNClass::request, {9, 9, 9});
  const Bytes bare = joined({front, message.encode()});
  message.append(TURNAttr::username, bytesOf("user"));
  TURNMessage shortOne = message;
  shortOne.append(TURNAttr::messageIntegrity, Bytes(16));
  appendMessageIntegrity(message, key);
  const Bytes once = joined({front, message.encode()});
  message.append(TURNAttr::fingerprint, Bytes(4));
  return {fingerprinted, bare, once, joined({front, message.encode()}),
          joined({front, shortOne.encode()})};
}

}  // namespace zk::fuzz
