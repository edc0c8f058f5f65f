// The message codec, the values of its attributes and the answer of a STUN server: what decodes is
// what stands in the datagram, encoding it again loses nothing, and each reader takes just the
// values that it may.

#include "Fuzz.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::fuzz {
namespace {

using namespace TURNAttributes;

std::optional<std::string> unmasked(ByteView value) {
  if (value.size() < 8 || value[1] != 1) {
    return std::nullopt;
  }
  const std::uint32_t ip =
      (value[4] * 16777216U + value[5] * 65536U + value[6] * 256U + value[7]) ^ 0x2112A442;
  const Bytes octets{static_cast<std::uint8_t>(ip >> 24), static_cast<std::uint8_t>(ip >> 16),
                     static_cast<std::uint8_t>(ip >> 8), static_cast<std::uint8_t>(ip)};
  return dottedQuad(octets) + ":" + std::to_string((value[2] * 256 + value[3]) ^ 0x2112);
}

void checkValue(ByteView value) {
  const auto address = decodeXorAddress(value);
  require((address ? std::optional(address->ip + ":" + std::to_string(address->port))
                   : std::nullopt) == unmasked(value),
          "an address just when there are 8 octets of the IPv4 family");
  if (address) {
    const auto again = encodeXorAddress(address->ip, address->port);
    require(again && (*again)[0] == 0 && areEqual(ByteView(*again).subspan(1), value.subspan(1, 7)),
            "encode(decode(x)) is x, but for the reserved octet");
  }
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
  for (const auto& place : AttributeWalk(datagram, 20, datagram.size()).places) {
    if (!expected && place.type == 0x0020 && datagram[0] == 1 && datagram[1] == 1) {
      expected = unmasked(place.value);
    }
  }
  require(STUN::parseXorMappedAddress(datagram, datagram.subspan(8, 12)) == expected,
          "an address just from the first IPv4 XOR-MAPPED-ADDRESS of our answer");
  require(!STUN::parseXorMappedAddress(datagram, STUN::makeBindingRequest().txID),
          "a foreign answer gives nothing");
}

}  // namespace

void run(ByteView input) {
  checkValue(input);
  checkAnswer(input);
  const auto message = TURNMessage::decode(input);
  const bool hasHeader = input.size() >= 20 && input[0] < 0x40 &&
                         areEqual(input.subspan(4, 4), bytesOf("\x21\x12\xA4\x42"));
  const std::size_t end = hasHeader ? 20U + readUInt16(input, 2) : 0;
  if (!hasHeader || input.size() < end) {
    require(!message, "no message without a whole header and body");
    return;
  }
  const AttributeWalk walk(input, 20, end);
  require(message.has_value() == walk.isWellFormed, "a message just when its attributes fit");
  if (!message) {
    return;
  }
  const unsigned type = readUInt16(input, 0);
  require(message->method == ((type & 0xF) | (type & 0xE0) >> 1 | (type & 0x3E00) >> 2) &&
              static_cast<unsigned>(message->klass) == ((type >> 7 & 2) | (type >> 4 & 1)),
          "method and class are those of the header");
  auto place = walk.places.begin();
  for (const TURNAttribute& attribute : message->attributes()) {
    require(place != walk.places.end() && attribute.type == place->type &&
                areEqual(attribute.value, place->value),
            "the attributes are those of the datagram, in order");
    const auto first = std::find_if(walk.places.begin(), walk.places.end(),
                                    [&](const auto& other) { return other.type == place->type; });
    require(areEqual(*message->first(attribute.type), first->value), "first() is the first");
    checkValue((place++)->value);
  }
  require(place == walk.places.end(), "no attribute is lost");

  const Bytes wire = message->encode();
  require(wire.size() == 20U + readUInt16(wire, 2), "the length field is true");
  require(areEqual(ByteView(wire).first(2), input.first(2)) &&
              areEqual(ByteView(wire).subspan(4, 16), input.subspan(4, 16)),
          "encode() writes the header that was read");
  require(TURNMessage::decode(wire) == message, "decode(encode(x)) is x");
}

std::vector<Bytes> seeds() {
  TURNMessage request(TURNMethod::allocate, TURNClass::request, {1, 2, 3});
  std::vector<Bytes> all{request.encode()};
  request.append(TURNAttr::requestedTransport, Bytes{17, 0, 0, 0});
  request.append(TURNAttr::username, bytesOf("alice"));
  request.append(TURNAttr::username, {});
  request.append(0xFFFF, bytesOf("unknown"));
  all.push_back(request.encode());
  all.push_back(all.back());
  all.back()[3] = static_cast<std::uint8_t>(all.back()[3] - 1);  // the last padding is not counted
  for (const std::uint16_t method : std::to_array<std::uint16_t>({0, 0x010, 0x080, 0xFFF})) {
    all.push_back(TURNMessage(method, TURNClass::errorResponse, {0xFF, 0xF0}).encode());
  }
  TURNMessage answer(1, TURNClass::successResponse, {8});
  answer.append(TURNAttr::xorMappedAddress, Bytes(7));
  answer.append(TURNAttr::xorMappedAddress, joined({Bytes{0, 2}, Bytes(18)}));
  answer.append(TURNAttr::xorMappedAddress, *encodeXorAddress("198.51.100.7", 55201));
  answer.append(TURNAttr::errorCode, encodeErrorCode(allocationMismatch));
  all.push_back(answer.encode());
  return all;
}

}  // namespace zk::fuzz
