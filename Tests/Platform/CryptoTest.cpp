#include <gtest/gtest.h>

#include "Platform/Crypto.h"
#include "Support.h"

namespace zk {
namespace {

using test::hex;

TEST(MD5, MeetsTheTestSuiteOfRFC1321) {
  const std::pair<std::string, const char*> suite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"}};
  for (const auto& [text, digest] : suite) {
    EXPECT_EQ(test::copyOf(md5(bytesOf(text))), hex(digest)) << text;
  }
}

TEST(HMACSHA1, MeetsTheTestCasesOfRFC2202WhateverPartsTheDataComesIn) {
  struct Case {
    Bytes key;
    Bytes data;
    const char* digest;
  };
  const auto text = [](std::string_view characters) { return test::copyOf(bytesOf(characters)); };
  const Case cases[] = {
      {Bytes(20, 0x0b), text("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
      {text("Jefe"), text("what do ya want for nothing?"),
       "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
      {Bytes(20, 0xaa), Bytes(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
      {hex("0102030405060708090a0b0c0d0e0f10111213141516171819"), Bytes(50, 0xcd),
       "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
      {Bytes(20, 0x0c), text("Test With Truncation"), "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
      {Bytes(80, 0xaa), text("Test Using Larger Than Block-Size Key - Hash Key First"),
       "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
      {Bytes(80, 0xaa),
       text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
       "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"}};
  for (const Case& c : cases) {
    EXPECT_EQ(test::copyOf(hmacSHA1(c.key, {c.data})), hex(c.digest));
    const ByteView data = c.data;
    EXPECT_EQ(test::copyOf(hmacSHA1(c.key, {data.first(5), {}, data.subspan(5)})), hex(c.digest));
  }
}

TEST(EqualInConstantTime, ComparesSizeAndContent) {
  const Bytes digest = hex("00112233");
  EXPECT_TRUE(equalInConstantTime(digest, hex("00112233")));
  EXPECT_FALSE(equalInConstantTime(digest, hex("00112232")));
  EXPECT_FALSE(equalInConstantTime(digest, hex("80112233")));
  EXPECT_FALSE(equalInConstantTime(digest, hex("001122")));
  EXPECT_FALSE(equalInConstantTime(digest, {}));
  EXPECT_TRUE(equalInConstantTime({}, {}));
}

}  // namespace
}  // namespace zk
