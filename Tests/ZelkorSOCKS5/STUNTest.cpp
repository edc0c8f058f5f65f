#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk::STUN {
namespace {

using test::hex;

TEST(STUN, MakesABindingRequestWithAFreshTransactionID) {
  const BindingRequest made = makeBindingRequest();
  EXPECT_EQ(test::copyOf(ByteView(made.request).first(8)), hex("0001 0000 2112A442"));
  EXPECT_EQ(test::copyOf(ByteView(made.request).subspan(8)), test::copyOf(made.txID));
  EXPECT_NE(made.txID, makeBindingRequest().txID);
}

TEST(STUN, ReadsTheFirstIPv4AddressOfOurSuccessResponseAndNothingElse) {
  const std::string id = "B7E7A701BC34D686FA87DFAE";
  const std::string ipv4 = "0020 0008 0001A147 E112A643";
  const std::string ipv6 = "0020 0014 0002A147 0113A9FAA5D3F179BC25F4B5BED2B9D9";
  const auto parse = [&](ByteView message) { return parseXorMappedAddress(message, hex(id)); };
  const std::optional mapped = Endpoint{0xC0000201, 32853};
  for (const auto& [type, attributes, address] :
       {std::tuple("0101", ipv6 + ipv4, mapped),
        {"0101", "8022 0005 6162636465 000000" + ipv4, mapped},
        {"0101", "0020 0004 0001A147" + ipv4, mapped},  // too short to be one
        {"0101", ipv4 + "0020 0008 00012112 2112A442", mapped},
        {"0101", "", std::nullopt},
        {"0101", "0001 0008 0001A147 E112A643", std::nullopt},  // MAPPED-ADDRESS
        {"0101", "8022 0009 6162" + ipv4, std::nullopt},        // swallows what is behind it
        {"0101", "8022 FFFF" + ipv4, std::nullopt},
        {"0111", ipv4, std::nullopt},
        {"0100", ipv4, std::nullopt}}) {
    EXPECT_EQ(parse(hex(type + ("0000 2112A442" + id) + attributes)), address) << attributes;
  }
  Bytes message = hex("0101 000C 2112A442" + id + ipv4);
  EXPECT_EQ(parse(message), mapped);
  for (std::size_t i = 0; i < 20; ++i) {
    Bytes changed = message;
    changed[i] ^= 1;
    EXPECT_EQ(parse(changed).has_value(), i > 1 && i < 8) << i;  // but for length and cookie
  }
  for (std::size_t size = 0; size < message.size(); ++size) {
    EXPECT_EQ(parse(ByteView(message).first(size)), std::nullopt) << size;
  }
}

TEST(STUN, MasksAddressesAsRFC5769HasIt) {
  for (const auto& [endpoint, value] : {std::pair(Endpoint{0xC0000201, 32853}, "0001A147 E112A643"),
                                        {{0x0A000001, 0}, "00012112 2B12A443"},
                                        {{0x2112A442, 0x2112}, "00010000 00000000"}}) {
    EXPECT_EQ(test::copyOf(encodeXorAddress(endpoint)), hex(value));
    EXPECT_EQ(decodeXorAddress(hex(value + std::string("FF"))), endpoint);
  }
  EXPECT_TRUE(decodeXorAddress(hex("FF01A147 E112A643")));
  EXPECT_FALSE(decodeXorAddress(hex("0001A147 E112A6")) || decodeXorAddress({}));
}

}  // namespace
}  // namespace zk::STUN
