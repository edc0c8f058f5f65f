#include <set>

#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {
namespace {

using test::hex;

const std::string id = "B7E7A701BC34D686FA87DFAE";
const std::string ipv4 = "0020 0008 0001A147 E112A643";  // 192.0.2.1:32853
const std::string ipv6 = "0020 0014 0002A147 0113A9FAA5D3F179BC25F4B5BED2B9D9";

std::optional<std::string> parse(const std::string& attributes, const std::string& type = "0101") {
  return STUN::parseXorMappedAddress(hex(type + "0000 2112A442" + id + attributes), hex(id));
}

TEST(STUN, MakesABindingRequestWithAFreshTransactionID) {
  std::set<std::array<std::uint8_t, 12>> seen;
  for (int i = 0; i < 100; ++i) {
    const STUN::BindingRequest made = STUN::makeBindingRequest();
    EXPECT_EQ(test::copyOf(ByteView(made.request).first(8)), hex("0001 0000 2112A442"));
    EXPECT_EQ(test::copyOf(ByteView(made.request).subspan(8)), test::copyOf(made.txID));
    EXPECT_TRUE(seen.insert(made.txID).second);
  }
}

TEST(STUN, ReadsTheFirstIPv4AddressOfASuccessResponse) {
  // RFC 5769 section 2.2, with SOFTWARE in front and MESSAGE-INTEGRITY and FINGERPRINT behind.
  EXPECT_EQ(STUN::parseXorMappedAddress(
                hex("0101003c2112a442b7e7a701bc34d686fa87dfae8022000b7465737420766563746f7220"
                    "002000080001a147e112a643000800142b91f599fd9e90c38c7489f92af9ba53f06be7d7"
                    "80280004c07d4c96"),
                hex(id)),
            "192.0.2.1:32853");
  EXPECT_EQ(parse("0020 0008 0001F6B3 E112A643"), "192.0.2.1:55201");
  EXPECT_EQ(parse(ipv6 + ipv4), "192.0.2.1:32853");
  EXPECT_EQ(parse("8022 0005 6162636465 000000" + ipv4), "192.0.2.1:32853");
  EXPECT_EQ(parse("0020 0004 0001A147" + ipv4), "192.0.2.1:32853");  // too short to be one
  EXPECT_EQ(parse("0020 000A 0001A147 E112A643 0000 0000"), "192.0.2.1:32853");
  EXPECT_EQ(parse(ipv4 + "0020 0008 00012112 2112A442"), "192.0.2.1:32853");
  EXPECT_EQ(parse("0020 0008 00012112 2112A442"), "0.0.0.0:0");
}

TEST(STUN, ReadsNothingElse) {
  EXPECT_EQ(parse(""), std::nullopt);
  EXPECT_EQ(parse(ipv6), std::nullopt);
  EXPECT_EQ(parse("0001 0008 0001A147 E112A643"), std::nullopt);  // MAPPED-ADDRESS
  EXPECT_EQ(parse("8022 0009 6162" + ipv4), std::nullopt);        // swallows what is behind it
  EXPECT_EQ(parse("8022 FFFF" + ipv4), std::nullopt);
  EXPECT_EQ(parse("0020 0008 0001A147 E112A6"), std::nullopt);
  for (const char* const type : {"0111", "0001", "0011", "0103", "0100"}) {
    EXPECT_EQ(parse(ipv4, type), std::nullopt) << type;
  }
  const Bytes good = hex("0101 000C 2112A442" + id + ipv4);
  ASSERT_TRUE(STUN::parseXorMappedAddress(good, hex(id)));
  for (std::size_t i = 0; i < 12; ++i) {
    Bytes foreign = hex(id);
    foreign[i] ^= 1;
    EXPECT_EQ(STUN::parseXorMappedAddress(good, foreign), std::nullopt) << "ID octet " << i;
  }
  for (std::size_t size = 0; size < good.size(); ++size) {
    const Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(STUN::parseXorMappedAddress(cut, hex(id)), std::nullopt) << size;
  }
}

}  // namespace
}  // namespace zk
