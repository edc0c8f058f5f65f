#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <optional>

#include "Base/Bytes.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {

/// STUN methods of TURN (RFC 5766 section 13).
namespace TURNMethod {
inline constexpr std::uint16_t allocate = 0x003;
inline constexpr std::uint16_t refresh = 0x004;
inline constexpr std::uint16_t send = 0x006;
inline constexpr std::uint16_t dataMsg = 0x007;
inline constexpr std::uint16_t createPermission = 0x008;
inline constexpr std::uint16_t channelBind = 0x009;
}  // namespace TURNMethod

/// Attribute types (RFC 5389 section 18.2, RFC 5766 section 14). Nothing else is read or written,
/// neither SOFTWARE nor ALTERNATE-SERVER, and FINGERPRINT is read only.
namespace TURNAttr {
inline constexpr std::uint16_t username = 0x0006;
inline constexpr std::uint16_t messageIntegrity = 0x0008;
inline constexpr std::uint16_t errorCode = 0x0009;
inline constexpr std::uint16_t channelNumber = 0x000C;
inline constexpr std::uint16_t lifetime = 0x000D;
inline constexpr std::uint16_t xorPeerAddress = 0x0012;
inline constexpr std::uint16_t data = 0x0013;
inline constexpr std::uint16_t realm = 0x0014;
inline constexpr std::uint16_t nonce = 0x0015;
inline constexpr std::uint16_t xorRelayedAddress = 0x0016;
inline constexpr std::uint16_t requestedTransport = 0x0019;
inline constexpr std::uint16_t xorMappedAddress = 0x0020;
inline constexpr std::uint16_t fingerprint = 0x8028;
}  // namespace TURNAttr

/// Message classes; the values are the class bits C1 C0 (RFC 5389 section 6).
enum class TURNClass : std::uint8_t {
  request = 0b00,
  indication = 0b01,
  successResponse = 0b10,
  errorResponse = 0b11,
};

using TransactionID = std::array<std::uint8_t, 12>;

using TURNAttribute = STUN::Attribute;

/// The attributes of an attribute section, in wire order, duplicates and unknown types included.
class TURNAttributeList {
 public:
  class Iterator {
   public:
    explicit Iterator(ByteView rest) : rest_(rest) { ++*this; }
    const TURNAttribute& operator*() const { return *current_; }
    void operator++() { current_ = STUN::takeAttribute(rest_); }
    bool operator==(std::default_sentinel_t) const { return !current_; }

   private:
    ByteView rest_;
    std::optional<TURNAttribute> current_;
  };
  explicit TURNAttributeList(ByteView section) : section_(section) {}
  Iterator begin() const { return Iterator(section_); }
  std::default_sentinel_t end() const { return {}; }

  /// The value of the first attribute of that type; absent when there is none.
  std::optional<ByteView> first(std::uint16_t type) const;

 private:
  ByteView section_;
};

/// A message as it lies in a datagram, of which nothing is copied.
struct TURNMessageView {
  std::uint16_t method = 0;
  TURNClass klass = TURNClass::request;
  TransactionID txID{};
  ByteView section;  // the attributes; padding may be missing behind the last one

  TURNAttributeList attributes() const { return TURNAttributeList(section); }
  std::optional<ByteView> first(std::uint16_t type) const { return attributes().first(type); }

  /// The message in one datagram; absent when it is not an acceptable one, with no reason given.
  /// Octets behind the declared length are ignored, and so is padding that is missing at the end.
  static std::optional<TURNMessageView> decode(ByteView datagram);
};

/// One STUN or TURN message (RFC 5389 section 6): a plain value. Attribute values are opaque here.
///
/// The attributes are kept as the attribute section that goes on the wire, so that a message with
/// any number of them costs one allocation, and what is signed is what is sent.
class TURNMessage {
 public:
  static constexpr std::size_t headerSize = STUN::headerSize;
  static constexpr std::size_t attributeHeaderSize = STUN::attributeHeaderSize;
  static constexpr auto& magicCookie = STUN::magicCookie;
  /// What fits the 16-bit length field of the header.
  static constexpr std::size_t largestAttributeSection = 65535;

  std::uint16_t method;
  TURNClass klass;
  TransactionID txID;

  /// A message without attributes. A method of 0x1000 or more is a programming error and stops the
  /// process. `attributeRoom`: octets of attribute section to reserve.
  TURNMessage(std::uint16_t withMethod, TURNClass withClass, const TransactionID& withTxID,
              std::size_t attributeRoom = 0);

  TURNAttributeList attributes() const { return TURNAttributeList(section_); }
  std::optional<ByteView> first(std::uint16_t type) const { return attributes().first(type); }
  /// Adds an attribute behind the others. Throws std::length_error when the attribute section would
  /// pass 65535 octets, so that what encode() writes always has a true length field.
  void append(std::uint16_t type, ByteView value);

  /// The attribute section as it stands on the wire: type, length, value, zero padding to 4.
  ByteView attributeSection() const { return section_; }
  /// The header in front of an attribute section of that length, which may count attributes that
  /// are yet to come.
  std::array<std::uint8_t, headerSize> header(std::size_t sectionLength) const;

  /// The wire form.
  Bytes encode() const;
  /// The message in one datagram, copied: see TURNMessageView::decode().
  static std::optional<TURNMessage> decode(ByteView datagram);

  /// Same header fields, same attributes in the same order.
  bool operator==(const TURNMessage&) const = default;

 private:
  Bytes section_;
};

}  // namespace zk
