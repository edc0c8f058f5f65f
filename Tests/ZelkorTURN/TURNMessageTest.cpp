#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk {
namespace {

using test::hex;

constexpr TransactionID txID{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
const std::string cookieAndID = "2112A442 0102030405060708090A0B0C";

// A datagram of an Allocate request that declares `length` octets of attributes.
Bytes datagram(const std::string& length, const std::string& attributes) {
  return hex("0003" + length + cookieAndID + attributes);
}

std::vector<std::pair<int, Bytes>> attributesOf(const TURNMessage& message) {
  std::vector<std::pair<int, Bytes>> list;
  for (const TURNAttribute attribute : message.attributes()) {
    list.emplace_back(attribute.type, test::copyOf(attribute.value));
  }
  return list;
}

TEST(TURNMessage, SurvivesItsWireFormWithEveryMethodAndClass) {
  for (std::uint16_t method = 0; method < 0x1000; ++method) {
    for (const TURNClass klass : {TURNClass::request, TURNClass::indication,
                                  TURNClass::successResponse, TURNClass::errorResponse}) {
      TURNMessage message(method, klass, txID);
      message.append(TURNAttr::data, hex("0102030405"));
      const Bytes wire = message.encode();
      ASSERT_LE(wire[0], 0x3F);
      const auto decoded = TURNMessage::decode(wire);
      ASSERT_TRUE(decoded && *decoded == message) << method << ' ' << static_cast<int>(klass);
    }
  }
}

TEST(TURNMessage, InterleavesMethodAndClassAsRFC5389Says) {
  const struct {
    std::uint16_t method;
    TURNClass klass;
    const char* type;
  } cases[] = {{TURNMethod::allocate, TURNClass::successResponse, "0103"},
               {TURNMethod::allocate, TURNClass::errorResponse, "0113"},
               {TURNMethod::dataMsg, TURNClass::indication, "0017"},
               {TURNMethod::send, TURNClass::indication, "0016"},
               {TURNMethod::channelBind, TURNClass::request, "0009"},
               {0xFFF, TURNClass::request, "3EEF"},
               {0x000, TURNClass::errorResponse, "0110"},
               {0x080, TURNClass::request, "0200"},
               {0x010, TURNClass::request, "0020"}};
  for (const auto& c : cases) {
    EXPECT_EQ(TURNMessage(c.method, c.klass, txID).encode(), hex(c.type + ("0000" + cookieAndID)));
  }
}

TEST(TURNMessage, PadsValuesWithZerosToFourOctets) {
  TURNMessage message(TURNMethod::allocate, TURNClass::request, txID);
  message.append(0x0013, hex("A1A2A3A4A5"));
  message.append(0x8022, {});
  message.append(0x0013, hex("B1B2B3B4"));
  EXPECT_EQ(message.encode(),
            datagram("0018", "0013 0005 A1A2A3A4A5 000000  8022 0000  0013 0004 B1B2B3B4"));
  EXPECT_EQ(test::copyOf(*message.first(0x0013)), hex("A1A2A3A4A5"));  // the first of its type
  EXPECT_TRUE(message.first(0x8022)->empty());
  EXPECT_EQ(message.first(0x0014), std::nullopt);
}

TEST(TURNMessage, RefusesWhatIsNoWholeMessage) {
  const std::pair<const char*, Bytes> cases[] = {
      {"nothing", {}},
      {"19 octets", hex("0003 0000 2112A442 0102030405060708090A0B")},
      {"a wrong cookie", hex("0003 0000 2112A443 0102030405060708090A0B0C")},
      {"a length beyond the datagram", datagram("0004", "")},
      {"one octet missing", datagram("0008", "0006 0004 616263")},
      {"a value beyond the declared length", datagram("0008", "0006 0005 6162636465 000000")},
      {"the same behind a good attribute",
       datagram("000C", "0013 0000 0006 0008 6162636465666768")},
      {"the largest value length", datagram("0004", "0006 FFFF")}};
  for (const auto& [what, octets] : cases) {
    EXPECT_EQ(TURNMessage::decode(octets), std::nullopt) << what;
  }
  Bytes message = datagram("0000", "");
  for (unsigned first = 0; first < 256; ++first) {  // 0x40 and above: channels, and nothing of ours
    message[0] = static_cast<std::uint8_t>(first);
    EXPECT_EQ(TURNMessage::decode(message).has_value(), first < 0x40) << first;
  }
  message[0] = 0;
  for (std::size_t i = 4; i < 8; ++i) {
    Bytes wrong = message;
    wrong[i] ^= 0x80;
    EXPECT_EQ(TURNMessage::decode(wrong), std::nullopt) << "cookie octet " << i;
  }
}

TEST(TURNMessage, TakesWhatItCanReadAndIgnoresTheRest) {
  using List = std::vector<std::pair<int, Bytes>>;
  const struct {
    const char* what;
    Bytes octets;
    List attributes;
  } cases[] = {
      {"no attributes", datagram("0000", ""), {}},
      {"octets behind the declared length", datagram("0004", "0013 0000 0006 0000"), {{0x13, {}}}},
      {"two octets left over", datagram("0006", "0013 0000 FFFF"), {{0x13, {}}}},
      {"three octets left over", datagram("0003", "001300"), {}},
      {"padding that is not there", datagram("0005", "0013 0001 AA"), {{0x13, {0xAA}}}},
      {"padding that is there but not counted",
       datagram("0005", "0013 0001 AA 000000 0006 0000"),
       {{0x13, {0xAA}}}},
      {"padding that is not zero", datagram("0008", "0013 0001 AA FFFFFF"), {{0x13, {0xAA}}}},
      {"unknown and repeated types in their order",
       datagram("0010", "7FFF 0000 0013 0001 AA000000 7FFF 0000"),
       {{0x7FFF, {}}, {0x13, {0xAA}}, {0x7FFF, {}}}}};
  for (const auto& c : cases) {
    const auto message = TURNMessage::decode(c.octets);
    ASSERT_TRUE(message) << c.what;
    EXPECT_EQ(attributesOf(*message), c.attributes) << c.what;
    EXPECT_EQ(message->txID, txID);
    EXPECT_EQ(message->method, TURNMethod::allocate);
    // Written anew it reads the same.
    EXPECT_EQ(TURNMessage::decode(message->encode()), message) << c.what;
  }
}

TEST(TURNMessage, HoldsAttributesUpToTheLengthFieldAndNoMore) {
  TURNMessage message(TURNMethod::dataMsg, TURNClass::indication, txID);
  message.append(TURNAttr::data, Bytes(65524, 1));  // a section of 65528
  EXPECT_THROW(message.append(TURNAttr::data, Bytes(5)), std::length_error);
  message.append(TURNAttr::data, {});
  EXPECT_THROW(message.append(TURNAttr::data, {}), std::length_error);
  const Bytes wire = message.encode();
  EXPECT_EQ(wire.size(), 20U + 65532U);
  EXPECT_EQ(TURNMessage::decode(wire), message);
}

// The last attribute of such a section has no room for its padding in a length field.
TEST(TURNMessage, SurvivesADatagramWithTheLargestSection) {
  Bytes octets = datagram("FFFF", "0013 FFFB");
  octets.resize(20 + 65535);
  const auto message = TURNMessage::decode(octets);
  EXPECT_TRUE(!message || message->encode().size() <= octets.size() + 1);
}

TEST(TURNMessageDeathTest, StopsOnAMethodThatDoesNotFit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(TURNMessage(0x1000, TURNClass::request, txID), "");
}

}  // namespace
}  // namespace zk
