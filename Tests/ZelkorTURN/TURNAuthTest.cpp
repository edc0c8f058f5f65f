#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNAuth.h"

namespace zk {
namespace {

using test::hex;

// RFC 5769 section 2.4: a request with long-term authentication.
const std::string longTermRequest =
    "000100602112a44278ad3433c6ad72c029da412e"
    "00060012e3839ee38388e383aae38383e382afe382b90000"
    "0015001c662f2f3439396b39353464364f4c33346f4c3946535476793634734100"
    "14000b6578616d706c652e6f726700"
    "00080014f67024656dd64a3e02b8e0712e85c9a28ca89666";
constexpr const char* longTermUser = "\u30DE\u30C8\u30EA\u30C3\u30AF\u30B9";

// RFC 5769 section 2.1: signed with a short-term password, then given a FINGERPRINT.
const std::string fingerprinted =
    "000100582112a442b7e7a701bc34d686fa87dfae"
    "802200105354554e207465737420636c69656e74"
    "002400046e0001ff"
    "80290008932ff9b151263b36"
    "000600096576746a3a68367659202020"
    "000800149aeaa70cbfd8cb56781ef2b5b2d3f249c1b571a2"
    "80280004e57a3bcf";

TURNMessage signedMessage(ByteView key) {
  TURNMessage message(TURNMethod::refresh, TURNClass::request, {1, 2, 3});
  message.append(TURNAttr::username, bytesOf("alice"));
  message.append(TURNAttr::lifetime, hex("00000258"));
  TURNAuth::appendMessageIntegrity(message, key);
  return message;
}

TEST(LongTermKey, IsTheDigestOfNameRealmAndPasswordInUTF8) {
  EXPECT_EQ(TURNAuth::longTermKey("u", "r", "p"), md5(bytesOf("u:r:p")));
  EXPECT_EQ(TURNAuth::longTermKey("u", "r\u00E9", ""), md5(hex("753a72c3a93a")));
  // RFC 5389 section 15.4.
  EXPECT_EQ(test::copyOf(TURNAuth::longTermKey("user", "realm", "pass")),
            hex("8493fbc53ba582fb4c044c456bdc40eb"));
}

TEST(MessageIntegrity, VerifiesTheLongTermRequestOfRFC5769) {
  const auto key = TURNAuth::longTermKey(longTermUser, "example.org", "TheMatrIX");
  const Bytes request = hex(longTermRequest);
  EXPECT_TRUE(TURNAuth::verifyMessageIntegrity(request, key));
  EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(
      request, TURNAuth::longTermKey(longTermUser, "example.org", "TheMatrix")));

  // The same message made by us has the same octets.
  const auto decoded = TURNMessage::decode(request);
  ASSERT_TRUE(decoded);
  TURNMessage made(decoded->method, decoded->klass, decoded->txID);
  for (const TURNAttribute attribute : decoded->attributes()) {
    if (attribute.type == TURNAttr::messageIntegrity) {
      TURNAuth::appendMessageIntegrity(made, key);
    } else {
      made.append(attribute.type, attribute.value);
    }
  }
  EXPECT_EQ(made.encode(), request);
}

TEST(MessageIntegrity, RefusesAFingerprintAddedAfterSigning) {
  const ByteView key = bytesOf("VOkJxbRl1RmTxUk/WvJxBt");
  Bytes message = hex(fingerprinted);
  EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(message, key));
  // Without it the signature fits: the refusal was for the FINGERPRINT.
  message.erase(message.end() - 8, message.end());
  writeUInt16(&message[2], 0x50);
  EXPECT_TRUE(TURNAuth::verifyMessageIntegrity(message, key));
}

TEST(MessageIntegrity, CoversEveryOctetInFrontOfIt) {
  const Bytes key = hex("00112233445566778899AABBCCDDEEFF");
  const Bytes wire = signedMessage(key).encode();
  ASSERT_TRUE(TURNAuth::verifyMessageIntegrity(wire, key));
  for (std::size_t i = 0; i < wire.size(); ++i) {
    for (const std::uint8_t bit : std::to_array<std::uint8_t>({0x01, 0x80})) {
      Bytes changed = wire;
      changed[i] ^= bit;
      EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(changed, key)) << "octet " << i;
    }
  }
  EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(wire, Bytes(16)));
  for (std::size_t size = 0; size < wire.size(); ++size) {
    EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(ByteView(wire).first(size), key)) << size;
  }
  Bytes longer = wire;  // octets behind the declared length are no part of the message
  longer.push_back(0);
  EXPECT_TRUE(TURNAuth::verifyMessageIntegrity(longer, key));
}

TEST(MessageIntegrity, IsJudgedByItsFirstAttributeAndThatOneWhole) {
  const Bytes key(16, 0x42);
  TURNMessage twice = signedMessage(key);
  const Bytes once = twice.encode();
  TURNAuth::appendMessageIntegrity(twice, key);
  EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(twice.encode(), key));  // the length is another now

  // A good signature behind one of 16 octets, which is refused and not skipped.
  TURNMessage shortFirst(TURNMethod::refresh, TURNClass::request, {});
  shortFirst.append(TURNAttr::messageIntegrity, Bytes(16));
  TURNAuth::appendMessageIntegrity(shortFirst, key);
  EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(shortFirst.encode(), key));

  // 43 octets cannot hold header and attribute, whatever they say.
  const Bytes header = hex("0004 0017 2112A442 000000000000000000000000 0008 0014");
  Bytes tooShort = header;
  const auto mac = hmacSHA1(key, {ByteView(header).first(20)});
  tooShort.insert(tooShort.end(), mac.begin(), mac.end() - 1);
  ASSERT_EQ(tooShort.size(), 43U);
  EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(tooShort, key));

  TURNMessage without(TURNMethod::refresh, TURNClass::request, {});
  without.append(TURNAttr::data, Bytes(60));
  EXPECT_FALSE(TURNAuth::verifyMessageIntegrity(without.encode(), key));
}

TEST(MessageIntegrity, HasNoRoomInAFullMessage) {
  TURNMessage full(TURNMethod::dataMsg, TURNClass::indication, {});
  full.append(TURNAttr::data, Bytes(65512));
  EXPECT_THROW(TURNAuth::appendMessageIntegrity(full, Bytes(16)), std::length_error);
}

TEST(Nonce, IsThirtyTwoHexadecimalDigitsAndNeverTheSame) {
  std::set<std::string> issued;
  for (int i = 0; i < 1000; ++i) {
    const std::string nonce = TURNAuth::makeNonce();
    EXPECT_EQ(nonce.size(), 32U);
    EXPECT_EQ(nonce.find_first_not_of("0123456789abcdef"), std::string::npos) << nonce;
    EXPECT_FALSE(TURNAuth::validateNonce(nonce, issued));
    issued.insert(nonce);
    EXPECT_TRUE(TURNAuth::validateNonce(nonce, issued));
  }
}

}  // namespace
}  // namespace zk
