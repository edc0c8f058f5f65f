#include <random>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "Base/Endpoint.h"

namespace zk {
namespace {

TEST(Endpoint, IsReadLenientlyFromWhatHasFourOctets) {
  for (const char* const text :
       {"10.0.0.1", ".10..0.0.1.", "10.-1.0. 2.256.0.1 .x.1", "010.000.0.001"}) {
    EXPECT_EQ(parseAddressLeniently(text), 0x0A000001U) << text;
  }
  for (const char* const text : {"10.0.0.256", "10.0.0", "10.0.0.1.2", "10.0.0.1x", "::1", ""}) {
    EXPECT_EQ(parseAddressLeniently(text), std::nullopt) << text;
  }
}

TEST(Endpoint, IsStrictAboutDottedQuadsAsTheSystemIsAndWritesThemAgain) {
  std::mt19937 random(7);
  const std::string characters = "0125.69 x";
  int accepted = 0;
  for (int i = 0; i < 200'000; ++i) {
    std::string text = "10.0.0.1";
    for (int change = 0; change < 3; ++change) {
      text[random() % text.size()] = characters[random() % characters.size()];
      text.insert(random() % text.size(), random() % 3 / 2, characters[random() % 9]);
    }
    in_addr wanted{};
    const auto address = parseAddress(text);
    ASSERT_EQ(address.has_value(), inet_pton(AF_INET, text.c_str(), &wanted) == 1) << text;
    if (address) {
      ++accepted;
      const Endpoint endpoint{*address, static_cast<std::uint16_t>(random())};
      ASSERT_EQ(endpoint.socketAddress().sin_addr.s_addr, wanted.s_addr);
      ASSERT_EQ(endpoint.text(), text + ":" + std::to_string(endpoint.port));
    }
  }
  EXPECT_GT(accepted, 1000);
  EXPECT_FALSE(parseAddress(std::string_view("10.0.0.1\0", 9)));
}

}  // namespace
}  // namespace zk
