#include "ZelkorTURN/TURNMessage.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace zk {

TURNMessage::TURNMessage(std::uint16_t withMethod, TURNClass withClass,
                         const TransactionID& withTxID, std::size_t attributeRoom)
    : method(withMethod), klass(withClass), txID(withTxID) {
  if (method >= 0x1000) {
    std::abort();
  }
  section_.reserve(attributeRoom);
}

std::optional<ByteView> TURNAttributeList::first(std::uint16_t type) const {
  for (const TURNAttribute& attribute : *this) {
    if (attribute.type == type) {
      return attribute.value;
    }
  }
  return std::nullopt;
}

void TURNMessage::append(std::uint16_t type, ByteView value) {
  const std::size_t at = section_.size();
  const std::size_t size = at + attributeHeaderSize + STUN::paddedLength(value.size());
  if (size > largestAttributeSection) {
    throw std::length_error("STUN attribute section over 65535 octets");
  }
  section_.resize(at + attributeHeaderSize);
  writeUInt16(&section_[at], type);
  writeUInt16(&section_[at + 2], static_cast<std::uint16_t>(value.size()));
  section_.insert(section_.end(), value.begin(), value.end());
  section_.resize(size);
}

std::array<std::uint8_t, TURNMessage::headerSize> TURNMessage::header(
    std::size_t sectionLength) const {
  // 0 0 M11 .. M7 C1 M6 M5 M4 C0 M3 .. M0
  const auto bits = static_cast<unsigned>(klass);
  const unsigned type = (method & 0xF80U) << 2 | (bits & 0b10) << 7 | (method & 0x070U) << 1 |
                        (bits & 0b01) << 4 | (method & 0x00FU);
  std::array<std::uint8_t, headerSize> header;
  writeUInt16(&header[0], static_cast<std::uint16_t>(type));
  writeUInt16(&header[2], static_cast<std::uint16_t>(sectionLength));
  std::copy(magicCookie.begin(), magicCookie.end(), header.begin() + 4);
  std::copy(txID.begin(), txID.end(), header.begin() + 8);
  return header;
}

Bytes TURNMessage::encode() const {
  return concatenated(header(section_.size()), section_);
}

std::optional<TURNMessage> TURNMessage::decode(ByteView datagram) {
  const auto view = TURNMessageView::decode(datagram);
  if (!view) {
    return std::nullopt;
  }
  TURNMessage message(view->method, view->klass, view->txID,
                      STUN::paddedLength(view->section.size()));
  for (const TURNAttribute& attribute : view->attributes()) {
    message.append(attribute.type, attribute.value);
  }
  return message;
}

std::optional<TURNMessageView> TURNMessageView::decode(ByteView datagram) {
  constexpr auto& cookie = TURNMessage::magicCookie;
  if (datagram.size() < TURNMessage::headerSize ||
      !std::equal(cookie.begin(), cookie.end(), datagram.begin() + 4) || datagram[0] > 0x3F) {
    return std::nullopt;
  }
  const unsigned byte0 = datagram[0];
  const unsigned byte1 = datagram[1];
  const std::size_t length = readUInt16(datagram, 2);
  if (datagram.size() < TURNMessage::headerSize + length) {
    return std::nullopt;
  }
  TURNMessageView message{
      static_cast<std::uint16_t>((byte0 << 6 & 0xF80) | (byte1 >> 1 & 0x70) | (byte1 & 0x0F)),
      static_cast<TURNClass>((byte0 & 1) << 1 | (byte1 >> 4 & 1)),
      {},
      datagram.subspan(TURNMessage::headerSize, length)};
  std::copy_n(datagram.begin() + 8, message.txID.size(), message.txID.begin());

  ByteView rest = message.section;
  std::size_t padded = 0;
  while (const auto attribute = STUN::takeAttribute(rest)) {
    // A section of 65533 to 65535 octets whose last padding was left out has no padded form that
    // fits a length field. No datagram holds that much.
    padded += TURNMessage::attributeHeaderSize + STUN::paddedLength(attribute->value.size());
    if (padded > TURNMessage::largestAttributeSection) {
      return std::nullopt;
    }
  }
  return rest.size() < TURNMessage::attributeHeaderSize ? std::optional(message) : std::nullopt;
}

}  // namespace zk
