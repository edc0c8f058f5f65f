#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk::TURNAttributes {
namespace {

using test::hex;

// The address of RFC 5769 section 2.2.
TEST(XorAddress, IsTheOneOfRFC5769) {
  const Bytes value = hex("0001A147 E112A643");
  const auto encoded = encodeXorAddress("192.0.2.1", 32853);
  ASSERT_TRUE(encoded);
  EXPECT_EQ(test::copyOf(*encoded), value);
  for (const char* const readable :
       {"0001A147 E112A643", "FF01A147 E112A643", "0001A147 E112A643 00"}) {
    const auto address = decodeXorAddress(hex(readable));
    ASSERT_TRUE(address) << readable;
    EXPECT_EQ(address->ip, "192.0.2.1");
    EXPECT_EQ(address->port, 32853);
  }
  for (const char* const unreadable :
       {"", "0001A147 E112A6", "0002A147 E112A643", "0000A147 E112A643",
        "0002A147 0113A9FAA5D3F179BC25F4B5BED2B9D9"}) {
    EXPECT_FALSE(decodeXorAddress(hex(unreadable))) << unreadable;
  }
}

TEST(XorAddress, SurvivesItsEncodingAndTakesLenientText) {
  for (const auto& [text, ip] : {std::pair{"0.0.0.0", "0.0.0.0"},
                                 {"255.255.255.255", "255.255.255.255"},
                                 {"10..0.0.1", "10.0.0.1"},
                                 {"33.18.164.66", "33.18.164.66"}}) {
    for (const std::uint16_t port : std::to_array<std::uint16_t>({0, 1, 0x2112, 65535})) {
      const auto address = decodeXorAddress(*encodeXorAddress(text, port));
      ASSERT_TRUE(address);
      EXPECT_EQ(address->ip, ip);
      EXPECT_EQ(address->port, port);
    }
  }
  for (const char* const text : {"", "proxy.example", "10.0.0", "::1"}) {
    EXPECT_FALSE(encodeXorAddress(text, 1)) << text;
  }
}

TEST(ErrorCode, HasClassNumberAndPhrase) {
  EXPECT_EQ(encodeErrorCode(allocationMismatch),
            hex("00000425 416C6C6F636174696F6E204D69736D61746368"));
  EXPECT_EQ(encodeErrorCode({500, ""}), hex("00000500"));
  EXPECT_EQ(decodeErrorCode(encodeErrorCode(staleNonce)), 438);
  EXPECT_EQ(decodeErrorCode(hex("FFFFFFFF")), 255 * 100 + 255);
  EXPECT_EQ(decodeErrorCode(hex("000004")), std::nullopt);
}

TEST(RequestValues, AreReadByTheirFirstOctets) {
  for (const auto& [value, isUDP] : {std::pair{"11000000", true},
                                     {"11FFFFFF", true},
                                     {"11", true},
                                     {"06000000", false},
                                     {"00110000", false},
                                     {"", false}}) {
    EXPECT_EQ(isUDPTransport(hex(value)), isUDP) << value;
  }
  EXPECT_EQ(decodeLifetime(hex("00000258")), 600U);
  EXPECT_EQ(decodeLifetime(hex("FFFFFFFF")), 0xFFFFFFFFU);
  EXPECT_EQ(decodeLifetime(hex("00000E10 FFFF")), 3600U);
  EXPECT_EQ(decodeLifetime(hex("000258")), std::nullopt);
  EXPECT_EQ(decodeChannelNumber(hex("40010000")), 0x4001);
  EXPECT_EQ(decodeChannelNumber(hex("FFFE")), 0xFFFE);
  EXPECT_EQ(decodeChannelNumber(hex("40")), std::nullopt);
  EXPECT_EQ(decodeNonce(bytesOf("f//499k")), "f//499k");
  EXPECT_EQ(decodeNonce({}), "");
  EXPECT_EQ(decodeNonce(hex("007F")), std::string_view("\0\x7F", 2));
  EXPECT_EQ(decodeNonce(hex("6162C3")), std::nullopt);
  EXPECT_EQ(decodeNonce(hex("80")), std::nullopt);
}

}  // namespace
}  // namespace zk::TURNAttributes
