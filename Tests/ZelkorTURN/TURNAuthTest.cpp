#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorTURN/TURNAuth.h"

namespace zk::TURNAuth {
namespace {

using test::hex;

// RFC 5769 section 2.4: a request with long-term authentication.
const Bytes longTermRequest =
    hex("000100602112a44278ad3433c6ad72c029da412e"
        "00060012e3839ee38388e383aae38383e382afe382b90000"
        "0015001c662f2f3439396b39353464364f4c33346f4c3946535476793634734100"
        "14000b6578616d706c652e6f726700"
        "00080014f67024656dd64a3e02b8e0712e85c9a28ca89666");
const LongTermKey matrixKey =
    longTermKey("\u30DE\u30C8\u30EA\u30C3\u30AF\u30B9", "example.org", "TheMatrIX");

// RFC 5769 section 2.1: signed with a short-term password, then given a FINGERPRINT.
const Bytes fingerprinted =
    hex("000100582112a442b7e7a701bc34d686fa87dfae"
        "802200105354554e207465737420636c69656e74"
        "002400046e0001ff80290008932ff9b151263b36000600096576746a3a68367659202020"
        "000800149aeaa70cbfd8cb56781ef2b5b2d3f249c1b571a280280004e57a3bcf");
const Bytes shortTermKey = test::copyOf(bytesOf("VOkJxbRl1RmTxUk/WvJxBt"));

TEST(MessageIntegrity, CoversEveryOctetInFrontOfItAndAFingerprintBehindItWhenAsked) {
  for (const auto& [message, key, acceptFingerprint] :
       {std::tuple(longTermRequest, ByteView(matrixKey), false),
        std::tuple(longTermRequest, ByteView(matrixKey), true),
        std::tuple(fingerprinted, ByteView(shortTermKey), true)}) {
    EXPECT_TRUE(verifyMessageIntegrity(message, key, acceptFingerprint));
    EXPECT_FALSE(verifyMessageIntegrity(message, Bytes(16), acceptFingerprint));
    Bytes longer = message;  // octets behind the declared length are no part of the message
    longer.push_back(0);
    EXPECT_TRUE(verifyMessageIntegrity(longer, key, acceptFingerprint));
    for (std::size_t i = 0; i < message.size(); ++i) {
      const ByteView cut = ByteView(message).first(i);
      EXPECT_FALSE(verifyMessageIntegrity(cut, key, acceptFingerprint)) << i;
      for (const unsigned bit : {0x01U, 0x80U}) {
        Bytes changed = message;
        changed[i] = static_cast<std::uint8_t>(changed[i] ^ bit);
        EXPECT_FALSE(verifyMessageIntegrity(changed, key, acceptFingerprint)) << "octet " << i;
      }
    }
  }
  EXPECT_FALSE(verifyMessageIntegrity(fingerprinted, shortTermKey));
}

TEST(MessageIntegrity, IsJudgedByItsFirstAttributeAndThatOneWhole) {
  TURNMessage none(TURNMethod::refresh, TURNClass::request, {});
  TURNMessage twice = none;
  appendMessageIntegrity(twice, matrixKey);
  appendMessageIntegrity(twice, matrixKey);
  TURNMessage shortFirst = none;
  shortFirst.append(TURNAttr::messageIntegrity, Bytes(16));
  appendMessageIntegrity(shortFirst, matrixKey);
  for (const Bytes& message : {none.encode(), twice.encode(), shortFirst.encode()}) {
    EXPECT_FALSE(verifyMessageIntegrity(message, matrixKey, false));
    EXPECT_FALSE(verifyMessageIntegrity(message, matrixKey, true));
  }
}

}  // namespace
}  // namespace zk::TURNAuth
