// The answer of a STUN server: only a Binding success response to our transaction gives an address,
// and it is the first IPv4 XOR-MAPPED-ADDRESS.

#include "Fuzz.h"
#include "ZelkorSOCKS5/STUN.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::fuzz {
namespace {

std::optional<std::string> expected(ByteView message, ByteView txID) {
  if (message.size() < 20 || message[0] != 1 || message[1] != 1 ||
      !areEqual(message.subspan(8, 12), txID)) {
    return std::nullopt;
  }
  for (const AttributePlace& place : AttributeWalk(message, 20, message.size()).places) {
    const ByteView value = message.subspan(place.at + 4, place.length);
    if (place.type == 0x0020) {
      if (const auto address = TURNAttributes::decodeXorAddress(value)) {
        return address->ip + ":" + std::to_string(address->port);
      }
    }
  }
  return std::nullopt;
}

}  // namespace

void run(ByteView bytes) {
  Input input(bytes);
  const std::uint8_t choice = input.octet();
  ByteView txID = input.take(12);
  const ByteView message = input.rest();
  if (choice % 2 == 0 && message.size() >= 20) {
    txID = message.subspan(8, 12);  // ours, which a fuzzer would hardly guess
  }
  Bytes padded(12);
  std::copy(txID.begin(), txID.end(), padded.begin());
  require(STUN::parseXorMappedAddress(message, padded) == expected(message, padded),
          "an address just from the first IPv4 XOR-MAPPED-ADDRESS of our answer");

  const auto asked = STUN::makeBindingRequest();
  const auto request = TURNMessage::decode(asked.request);
  require(request && request->method == 1 && request->klass == TURNClass::request &&
              request->txID == asked.txID && request->attributeSection().empty(),
          "we ask with a Binding request without attributes");
  require(!STUN::parseXorMappedAddress(message, asked.txID), "a foreign answer gives nothing");
}

std::vector<Bytes> seeds() {
  const auto address = *TURNAttributes::encodeXorAddress("198.51.100.7", 55201);
  const Bytes front(13);
  TURNMessage plain(1, TURNClass::successResponse, {7});
  plain.append(TURNAttr::xorMappedAddress, address);
  TURNMessage behind(1, TURNClass::successResponse, {8});
  behind.append(0x8022, bytesOf("server"));
  Bytes v6(20);
  v6[1] = 2;
  behind.append(TURNAttr::xorMappedAddress, v6);
  behind.append(TURNAttr::xorMappedAddress, Bytes(7));
  behind.append(TURNAttr::xorMappedAddress, address);
  const TURNMessage empty(1, TURNClass::successResponse, {9});
  return {joined({front, plain.encode()}), joined({front, behind.encode()}),
          joined({front, empty.encode()}), joined({Bytes(1, 1), front, plain.encode()})};
}

}  // namespace zk::fuzz
