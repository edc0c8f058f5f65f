#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk {
namespace {

using test::hex;

constexpr TransactionID txID{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

// The message of this type that declares `length` octets of attributes.
Bytes wire(const std::string& type, const std::string& length, const std::string& attributes = "") {
  return hex(type + length + "2112A442 0102030405060708090A0B0C" + attributes);
}

TEST(TURNMessage, InterleavesMethodAndClassAsRFC5389Says) {
  for (const auto& [method, klass, type] : {std::tuple(0x003U, TURNClass::successResponse, "0103"),
                                            {0x007U, TURNClass::indication, "0017"},
                                            {0x000U, TURNClass::errorResponse, "0110"},
                                            {0x080U, TURNClass::request, "0200"},
                                            {0x010U, TURNClass::request, "0020"}}) {
    EXPECT_EQ(TURNMessage(method & 0xFFF, klass, txID).encode(), wire(type, "0000"));
  }
  for (unsigned i = 0; i < 0x4000; ++i) {
    const TURNMessage message(i / 4 & 0xFFF, static_cast<TURNClass>(i % 4), txID);
    ASSERT_EQ(TURNMessage::decode(message.encode()), message) << i;
  }
}

// What is read is compared as it is written anew, with its padding.
TEST(TURNMessage, TakesWhatItCanReadAndNothingThatIsCutShort) {
  const std::optional<const char*> nothing;
  for (const auto& [length, attributes, newLength, again] :
       {std::tuple("0000", "", "0000", std::optional("")),
        {"0004", "0013 0000 0006 0000", "0004", "0013 0000"},  // more than it says
        {"0006", "0013 0000 FFFF", "0004", "0013 0000"},
        {"0003", "001300", "0000", ""},
        {"0005", "0013 0001 AA", "0008", "0013 0001 AA000000"},  // without padding
        {"0005", "0013 0001 AA 000000 0006", "0008", "0013 0001 AA000000"},
        {"0008", "0013 0001 AA FFFFFF", "0008", "0013 0001 AA000000"},
        {"000C", "7FFF 0000 0013 0000 7FFF 0000", "000C", "7FFF 0000 0013 0000 7FFF 0000"},
        {"0004", "", "", nothing},  // less than it says
        {"0008", "0006 0004 616263", "", nothing},
        {"0008", "0006 0005 6162636465 000000", "", nothing},
        {"000C", "0013 0000 0006 0005 6162636465", "", nothing}}) {
    const auto message = TURNMessage::decode(wire("0003", length, attributes));
    ASSERT_EQ(message.has_value(), again.has_value()) << length << ' ' << attributes;
    EXPECT_TRUE(!message || message->encode() == wire("0003", newLength, *again)) << attributes;
  }
  Bytes header = wire("0003", "0000");
  EXPECT_EQ(TURNMessage::decode(ByteView(header).first(19)), std::nullopt);
  for (const std::size_t octet : {0U, 4U, 5U, 6U, 7U}) {  // a channel; another cookie
    header[octet] ^= 0x40;
    EXPECT_EQ(TURNMessage::decode(header), std::nullopt) << octet;
    header[octet] ^= 0x40;
  }
}

}  // namespace
}  // namespace zk
