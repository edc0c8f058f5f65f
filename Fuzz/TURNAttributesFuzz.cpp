// The attribute codecs: encode and decode are inverse to each other, and each reader takes just the
// values that it may.

#include "Fuzz.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk::fuzz {
namespace {

using namespace TURNAttributes;

void checkAddress(ByteView value) {
  const auto address = decodeXorAddress(value);
  require(address.has_value() == (value.size() >= 8 && value[1] == 1),
          "an address just when there are 8 octets of the IPv4 family");
  if (!address) {
    return;
  }
  const Bytes octets{
      static_cast<std::uint8_t>(value[4] ^ 0x21), static_cast<std::uint8_t>(value[5] ^ 0x12),
      static_cast<std::uint8_t>(value[6] ^ 0xA4), static_cast<std::uint8_t>(value[7] ^ 0x42)};
  require(address->ip == dottedQuad(octets) && isDottedQuad(address->ip),
          "an address is a dotted quad of the unmasked octets");
  const auto again = encodeXorAddress(address->ip, address->port);
  require(again && (*again)[0] == 0 && areEqual(ByteView(*again).subspan(1), value.subspan(1, 7)),
          "encode(decode(x)) is x, but for the reserved octet");
}

void checkText(std::string_view text, std::uint16_t port) {
  const auto octets = lenientIPv4(text);
  const auto value = encodeXorAddress(text, port);
  require(value.has_value() == octets.has_value(), "an address just for four octets");
  if (octets) {
    const auto address = decodeXorAddress(*value);
    require(address && address->ip == dottedQuad(*octets) && address->port == port,
            "decode(encode(x)) is x");
  }
  if (isDottedQuad(std::string(text))) {
    require(octets && dottedQuad(*octets) == text, "a strict dotted quad is its own normal form");
  }
}

}  // namespace

void run(ByteView bytes) {
  Input input(bytes);
  const std::uint16_t number = input.number();
  const ByteView value = input.rest();
  checkAddress(value);
  checkText(textOf(value), number);

  const auto lifetime = decodeLifetime(value);
  require(lifetime.has_value() == (value.size() >= 4), "a lifetime just when it is whole");
  require(!lifetime ||
              *lifetime == value[0] * 16777216U + value[1] * 65536U + value[2] * 256U + value[3],
          "a lifetime is big-endian");
  const auto channel = decodeChannelNumber(value);
  require(channel.has_value() == (value.size() >= 2), "a channel number just when it is whole");
  require(!channel || *channel == value[0] * 256 + value[1], "a channel number is big-endian");
  require(isUDPTransport(value) == (!value.empty() && value[0] == 17), "UDP just for 17");
  const auto nonce = decodeNonce(value);
  require(
      nonce.has_value() == std::all_of(value.begin(), value.end(), [](auto o) { return o < 128; }),
      "a nonce just when it is ASCII");
  require(!nonce || *nonce == textOf(value), "a nonce is the whole value");

  require(decodeErrorCode(value).has_value() == (value.size() >= 4), "an error just when whole");
  const ErrorCode error{number % 25600, textOf(value)};
  const Bytes encoded = encodeErrorCode(error);
  require(decodeErrorCode(encoded) == error.code && encoded[0] == 0 && encoded[1] == 0 &&
              encoded[3] < 100 && areEqual(ByteView(encoded).subspan(4), value),
          "decode(encode(error)) is the error");
}

std::vector<Bytes> seeds() {
  std::vector<Bytes> all;
  for (const char* text : {"192.0.2.1", "0.0.0.0", "255.255.255.255", "10..0.0.1", "10.0.x.0.1",
                           "10.0.0.256", "007.1.2.3", "1.2.3", "1.2.3.4.5", "", "example.org"}) {
    all.push_back(joined({Bytes{0x80, 0x55}, bytesOf(text)}));
  }
  all.push_back(joined({Bytes{0, 0}, *encodeXorAddress("192.0.2.1", 32853)}));
  all.push_back(joined({Bytes{1, 0xB5}, encodeErrorCode(allocationMismatch)}));
  all.push_back({0, 0, 17, 0, 0, 0});
  return all;
}

}  // namespace zk::fuzz
