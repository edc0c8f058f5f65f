#include <random>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "Base/IPv4.h"

namespace zk {
namespace {

TEST(IPv4, ReadsLenientlyWhatHasFourOctets) {
  for (const char* const text :
       {"10.0.0.1", ".10..0.0.1.", "10.-1.0. 2.256.0.1 .x.1", "010.000.0.001"}) {
    EXPECT_EQ(parseIPv4(text), (IPv4Octets{10, 0, 0, 1})) << text;
  }
  for (const char* const text : {"10.0.0.256", "10.0.0", "10.0.0.1.2", "10.0.0.1x", "::1", ""}) {
    EXPECT_EQ(parseIPv4(text), std::nullopt) << text;
  }
}

TEST(IPv4, IsStrictAboutDottedQuadsAsTheSystemIs) {
  std::mt19937 random(7);
  const std::string characters = "0125.69 x";
  int accepted = 0;
  for (int i = 0; i < 200'000; ++i) {
    std::string text = "10.0.0.1";
    for (int change = 0; change < 3; ++change) {
      text[random() % text.size()] = characters[random() % characters.size()];
      text.insert(random() % text.size(), random() % 3 / 2, characters[random() % 9]);
    }
    in_addr address{};
    ASSERT_EQ(isDottedQuad(text), inet_pton(AF_INET, text.c_str(), &address) == 1) << text;
    accepted += isDottedQuad(text) ? 1 : 0;
  }
  EXPECT_GT(accepted, 1000);
  EXPECT_FALSE(isDottedQuad(std::string_view("10.0.0.1\0", 9)));
}

}  // namespace
}  // namespace zk
