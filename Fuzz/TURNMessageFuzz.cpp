// The message codec, the values of its attributes, the answer of a STUN server and
// MESSAGE-INTEGRITY: what decodes is what stands in the datagram, encoding it again loses nothing,
// each reader takes just the values that it may, and nothing verifies but what was signed.

#include <fmt/format.h>

#include "Fuzz.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNAuth.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::fuzz {
namespace {

using namespace TURNAttributes;
using TURNAuth::verifyMessageIntegrity;

// The attributes of a datagram (RFC 5389 section 15), read independently of the product, up to the
// first one that does not fit.
struct Walk {
  struct Place {
    std::size_t at;
    std::uint16_t type;
    ByteView value;
  };
  explicit Walk(ByteView datagram) {
    for (std::size_t at = 20; at + 4 <= datagram.size();) {
      const std::size_t length = readUInt16(datagram, at + 2);
      isWellFormed = at + 4 + length <= datagram.size();
      if (!isWellFormed) {
        return;
      }
      places.push_back({at, readUInt16(datagram, at), datagram.subspan(at + 4, length)});
      at += 4 + (length + 3) / 4 * 4;
    }
  }
  const Place* first(std::uint16_t type) const {
    const auto place = std::find_if(places.begin(), places.end(),
                                    [&](const Place& each) { return each.type == type; });
    return place == places.end() ? nullptr : &*place;
  }
  std::vector<Place> places;
  bool isWellFormed = true;
};

// The part of a datagram that its header speaks of; empty without a whole header and body.
ByteView declaredPart(ByteView datagram) {
  const bool hasHeader =
      datagram.size() >= 20 && areEqual(datagram.subspan(4, 4), bytesOf("\x21\x12\xA4\x42"));
  const std::size_t size = hasHeader ? 20U + readUInt16(datagram, 2) : 0;
  return datagram.first(size <= datagram.size() ? size : 0);
}

std::optional<std::string> unmasked(ByteView value) {
  if (value.size() < 8 || value[1] != 1) {
    return std::nullopt;
  }
  Bytes octets = joined({value.subspan(2, 6)});
  for (std::size_t i = 0; i < octets.size(); ++i) {
    octets[i] ^= Bytes{0x21, 0x12, 0x21, 0x12, 0xA4, 0x42}[i];
  }
  return fmt::format("{}:{}", dottedQuad(ByteView(octets).subspan(2)), readUInt16(octets, 0));
}

void checkValue(ByteView value) {
  const auto address = decodeXorAddress(value);
  const auto text = address ? std::optional(address->text()) : std::nullopt;
  require(text == unmasked(value), "an address just when there are 8 octets of the IPv4 family");
  require(
      !address || areEqual(ByteView(encodeXorAddress(*address)).subspan(1), value.subspan(1, 7)),
      "encode(decode(x)) is x, but for the reserved octet");
  // Read for their first octets, and safely when there are none.
  require(decodeLifetime(value).has_value() == (value.size() >= 4) &&
              decodeErrorCode(value).has_value() == (value.size() >= 4) &&
              decodeChannelNumber(value).has_value() == (value.size() >= 2) &&
              isUDPTransport(value) == (!value.empty() && value[0] == 17),
          "a value just when it is whole");
  const bool isASCII = std::all_of(value.begin(), value.end(), [](auto o) { return o < 128; });
  require(decodeNonce(value) == (isASCII ? std::optional(textOf(value)) : std::nullopt),
          "a nonce is the whole value, just when it is ASCII");
}

void checkAnswer(ByteView datagram) {
  if (datagram.size() < 20) {
    return;
  }
  std::optional<std::string> expected;
  for (const auto& place : Walk(datagram).places) {
    if (!expected && place.type == 0x0020 && readUInt16(datagram, 0) == 0x0101) {
      expected = unmasked(place.value);
    }
  }
  const auto found = STUN::parseXorMappedAddress(datagram, datagram.subspan(8, 12));
  require((found ? std::optional(found->text()) : std::nullopt) == expected,
          "an address just from the first IPv4 XOR-MAPPED-ADDRESS of our answer");
  require(!STUN::parseXorMappedAddress(datagram, STUN::makeBindingRequest().txID),
          "a foreign answer gives nothing");
}

void checkMessage(const TURNMessage& message, ByteView datagram, const Walk& walk) {
  const unsigned type = readUInt16(datagram, 0);
  require(message.method == ((type & 0xF) | (type & 0xE0) >> 1 | (type & 0x3E00) >> 2) &&
              static_cast<unsigned>(message.klass) == ((type >> 7 & 2) | (type >> 4 & 1)),
          "method and class are those of the header");
  Bytes wire = joined({datagram.first(20)});
  for (const auto& place : walk.places) {
    append(wire, datagram.subspan(place.at, 4 + place.value.size()));
    wire.resize((wire.size() + 3) / 4 * 4);
    checkValue(place.value);
    require(areEqual(message.first(place.type).value(), walk.first(place.type)->value),
            "first() is the first");
  }
  writeUInt16(&wire[2], static_cast<std::uint16_t>(wire.size() - 20));
  require(message.encode() == wire, "encode() writes what was read, padded with zeros");
  require(TURNMessage::decode(wire) == message, "decode(encode(x)) is x");
  TURNMessage copy(message.method, message.klass, message.txID);
  for (const TURNAttribute& attribute : message.attributes()) {
    copy.append(attribute.type, attribute.value);
  }
  require(copy == message, "the attributes are those of the message, in order");
}

}  // namespace

void run(ByteView bytes) {
  Input input(bytes);
  const Bytes key = joined({input.take(input.octet()), Bytes(1)});
  const std::size_t position = input.number();
  const std::uint8_t change = std::max<std::uint8_t>(input.octet(), 1);
  const auto changed = [&](ByteView octets, std::size_t at) {
    Bytes other = joined({octets});
    other[at % other.size()] ^= change;
    return other;
  };
  const ByteView datagram = input.rest();
  const ByteView declared = declaredPart(datagram);
  const Walk walk(declared);
  checkValue(datagram);
  checkAnswer(datagram);

  const auto message = TURNMessage::decode(datagram);
  require(message.has_value() == (!declared.empty() && declared[0] < 0x40 && walk.isWellFormed),
          "a message just when header and attributes are whole");
  if (message) {
    checkMessage(*message, declared, walk);
  }

  const Walk::Place* const integrity = walk.first(TURNAttr::messageIntegrity);
  const bool canVerify = integrity != nullptr && integrity->value.size() == 20;
  const bool isSigned =
      canVerify && areEqual(integrity->value, hmacSHA1(key, {declared.first(integrity->at)}));
  require(verifyMessageIntegrity(datagram, key) == isSigned, "verifies just when it was signed");
  const bool isAccepted = verifyMessageIntegrity(datagram, key, true);
  if (canVerify && integrity->at + 32 == declared.size() &&
      readUInt16(declared, integrity->at + 24) == TURNAttr::fingerprint) {
    Bytes shorter = joined({declared.first(declared.size() - 8)});
    writeUInt16(&shorter[2], static_cast<std::uint16_t>(shorter.size() - 20));
    require(!isAccepted || verifyMessageIntegrity(shorter, key),
            "a FINGERPRINT vouches for nothing but itself");
    for (std::size_t at = 0; isAccepted && at < declared.size(); ++at) {
      // A length that ends in front of the FINGERPRINT takes it away; the rest was signed so.
      const Bytes other = changed(datagram, at);
      require(areEqual(declaredPart(other), shorter) || !verifyMessageIntegrity(other, key, true),
              "no octet can change, but the FINGERPRINT can go");
    }
  } else {
    require(isAccepted == isSigned, "without a FINGERPRINT there is no difference");
  }

  if (message && integrity == nullptr && declared.size() < 65000) {
    TURNMessage ours = *message;
    TURNAuth::appendMessageIntegrity(ours, key);
    const Bytes wire = ours.encode();
    for (const bool acceptFingerprint : {false, true}) {
      const auto verifies = [&](ByteView octets, ByteView byKey) {
        return verifyMessageIntegrity(octets, byKey, acceptFingerprint);
      };
      require(verifies(wire, key), "what is signed verifies");
      require(!verifies(wire, changed(key, position)), "by its key only");
      require(!verifies(ByteView(wire).first(position % wire.size()), key) &&
                  (acceptFingerprint || !verifies(changed(wire, position), key)),
              "neither cut nor changed");
    }
  }
}

std::vector<Bytes> seeds() {
  TURNMessage request(TURNMethod::allocate, TURNClass::request, {1, 2, 3});
  std::vector<Bytes> all{request.encode()};
  request.append(TURNAttr::requestedTransport, Bytes{17, 0, 0, 0});
  request.append(TURNAttr::username, bytesOf("alice"));
  request.append(TURNAttr::username, {});
  request.append(0xFFFF, bytesOf("unknown"));
  all.push_back(request.encode());
  TURNMessage answer(1, TURNClass::successResponse, {8});
  answer.append(TURNAttr::xorMappedAddress, Bytes(7));
  answer.append(TURNAttr::xorMappedAddress, joined({Bytes{0, 2}, Bytes(18)}));
  answer.append(TURNAttr::xorMappedAddress, encodeXorAddress({0xC6336407, 55201}));
  answer.append(TURNAttr::errorCode, encodeErrorCode(allocationMismatch));
  all.push_back(answer.encode());
  answer.append(TURNAttr::messageIntegrity, Bytes(16));
  all.push_back(answer.encode());
  const std::string_view key = "VOkJxbRl1RmTxUk/WvJxBt";
  TURNAuth::appendMessageIntegrity(request, joined({bytesOf(key), Bytes(1)}));
  all.push_back(request.encode());
  request.append(TURNAttr::fingerprint, Bytes(4));
  all.push_back(request.encode());
  // RFC 5769 section 2.1.
  all.push_back(joined({bytesOf(std::string_view(
      "\0\x01\0\x58\x21\x12\xa4\x42\xb7\xe7\xa7\x01\xbc\x34\xd6\x86\xfa\x87\xdf\xae"
      "\x80\x22\0\x10STUN test client\0\x24\0\x04\x6e\0\x01\xff"
      "\x80\x29\0\x08\x93\x2f\xf9\xb1\x51\x26\x3b\x36\0\x06\0\x09\x65vtj:h6vY   "
      "\0\x08\0\x14\x9a\xea\xa7\x0c\xbf\xd8\xcb\x56\x78\x1e\xf2\xb5\xb2\xd3\xf2\x49\xc1\xb5\x71"
      "\xa2\x80\x28\0\x04\xe5\x7a\x3b\xcf",
      108))}));
  for (Bytes& seed : all) {
    seed = joined({Bytes{22}, bytesOf(key), Bytes{0, 21, 0x80}, seed});
  }
  return all;
}

}  // namespace zk::fuzz
