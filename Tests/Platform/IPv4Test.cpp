#include <random>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "Platform/IPv4.h"

namespace zk {
namespace {

TEST(ParseIPv4, LeavesOutWhatIsNoOctetAndWantsExactlyFour) {
  constexpr IPv4Octets ten{10, 0, 0, 1};
  const std::pair<const char*, std::optional<IPv4Octets>> cases[] = {
      {"10.0.0.1", ten},
      {"10..0.0.1", ten},
      {".10.0.0.1.", ten},
      {"10.0.x.0.1", ten},
      {"10.0.256.0.1", ten},
      {"10.-1.0. 2.0.1 .1", ten},
      {"010.000.0.001", ten},
      {"255.254.253.0", IPv4Octets{255, 254, 253, 0}},
      {"10.0.0.256", std::nullopt},
      {"10.0.0", std::nullopt},
      {"10.0.0.1.2", std::nullopt},
      {"10.0.0.1x", std::nullopt},
      {"0x10.0.0.1", std::nullopt},
      {"example", std::nullopt},
      {"::1", std::nullopt},
      {"", std::nullopt},
      {"...", std::nullopt}};
  for (const auto& [text, octets] : cases) {
    EXPECT_EQ(parseIPv4(text), octets) << text;
  }
}

TEST(IPv4, FormatsWithoutLeadingZerosAndReadsBack) {
  for (int value = 0; value < 256; ++value) {
    const auto octet = static_cast<std::uint8_t>(value);
    const IPv4Octets octets{octet, 0, 200, octet};
    const std::string text = std::to_string(value) + ".0.200." + std::to_string(value);
    EXPECT_EQ(formatIPv4(octets.data()), text);
    EXPECT_EQ(addressText(socketAddress(text, 4660)), text);
    EXPECT_TRUE(isDottedQuad(text));
  }
  EXPECT_EQ(portNumber(socketAddress("127.0.0.1", 4660)), 4660);
  EXPECT_EQ(socketAddress("127.0.0.1", 0x1234).sin_port, htons(0x1234));
  EXPECT_EQ(addressText(socketAddress("proxy.example", 1)), "0.0.0.0");
}

TEST(IPv4, IsStrictAboutDottedQuadsAsTheSystemIs) {
  const auto systemSays = [](const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
  };
  std::mt19937 random(7);
  const std::string characters = "0125.69 x";
  int accepted = 0;
  for (int i = 0; i < 200'000; ++i) {
    std::string text = "10.0.0.1";
    for (int change = 0; change < 3; ++change) {
      text[random() % text.size()] = characters[random() % characters.size()];
      if (random() % 3 == 0) {
        text.insert(random() % text.size(), 1, characters[random() % characters.size()]);
      }
    }
    accepted += isDottedQuad(text) ? 1 : 0;
    ASSERT_EQ(isDottedQuad(text), systemSays(text)) << text;
  }
  EXPECT_GT(accepted, 1000);
  for (const std::string& text : {std::string("10.0.0.1\0", 9), std::string("10.0.0.1\0x", 10),
                                  std::string("::1"), std::string("localhost"), std::string()}) {
    EXPECT_FALSE(isDottedQuad(text)) << text;
  }
}

}  // namespace
}  // namespace zk
