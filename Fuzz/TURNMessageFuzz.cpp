// The message codec: what decodes is what stands in the datagram, encoding it again loses nothing,
// and append() keeps to its limit.

#include <stdexcept>

#include "Fuzz.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::fuzz {
namespace {

void checkAppend(TURNMessage message, std::size_t length) {
  const TURNMessage before = message;
  const Bytes value(length, 0xA5);
  bool isRefused = false;
  try {
    message.append(0x7777, value);
  } catch (const std::length_error&) {
    isRefused = true;
  }
  const std::size_t size = before.attributeSection().size() + 4 + (length + 3) / 4 * 4;
  require(isRefused == (size > 65535), "append() refuses just what passes 65535 octets");
  require(!isRefused || message == before, "a refused attribute leaves the message alone");
  if (!isRefused) {
    require(message.attributeSection().size() == size, "an appended attribute is padded");
    require(TURNMessage::decode(message.encode()) == message, "decode(encode(x)) is x");
  }
}

}  // namespace

void run(ByteView input) {
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
              static_cast<unsigned>(message->klass) == ((type >> 7 & 2) | (type >> 4 & 1)) &&
              areEqual(message->txID, input.subspan(8, 12)),
          "method, class and transaction ID are those of the header");
  auto place = walk.places.begin();
  std::size_t sectionSize = 0;
  for (const TURNAttribute attribute : message->attributes()) {
    require(place != walk.places.end() && attribute.type == place->type &&
                areEqual(attribute.value, input.subspan(place->at + 4, place->length)),
            "the attributes are those of the datagram, in order");
    sectionSize += 4 + (place->length + 3) / 4 * 4;
    const auto first = std::find_if(walk.places.begin(), walk.places.end(),
                                    [&](const auto& other) { return other.type == place->type; });
    const auto found = message->first(attribute.type);
    require(found && areEqual(*found, input.subspan(first->at + 4, first->length)),
            "first() gives the first of a type");
    ++place;
  }
  require(place == walk.places.end(), "no attribute is lost");

  const Bytes wire = message->encode();
  require(wire.size() == 20 + sectionSize && readUInt16(wire, 2) == sectionSize,
          "the length field is true");
  require(areEqual(ByteView(wire).first(2), input.first(2)) &&
              areEqual(ByteView(wire).subspan(4, 16), input.subspan(4, 16)),
          "encode() writes the header that was read");
  const auto again = TURNMessage::decode(wire);
  require(again == message, "decode(encode(x)) is x");
  require(again->encode() == wire, "encode(decode(y)) is y for what encode() wrote");
  checkAppend(*message, readUInt16(input, 8));
}

std::vector<Bytes> seeds() {
  std::vector<Bytes> all;
  TURNMessage message(TURNMethod::allocate, TURNClass::request, {1, 2, 3});
  all.push_back(message.encode());
  message.append(TURNAttr::requestedTransport, Bytes{17, 0, 0, 0});
  message.append(TURNAttr::username, bytesOf("alice"));
  message.append(TURNAttr::username, {});
  message.append(0xFFFF, bytesOf("unknown"));
  all.push_back(message.encode());
  all.push_back(all.back());
  all.back()[3] = static_cast<std::uint8_t>(all.back()[3] - 1);  // the last padding is not counted
  for (const std::uint16_t method :
       std::initializer_list<std::uint16_t>{0, 7, 0x010, 0x080, 0xFFF}) {
    all.push_back(TURNMessage(method, TURNClass::errorResponse, {0xFF, 0xF0}).encode());
  }
  return all;
}

}  // namespace zk::fuzz
