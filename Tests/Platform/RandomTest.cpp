#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Random.h"

namespace zk {
namespace {

TEST(RandomPool, HandsOutEveryOctetOnce) {
  RandomPool pool;
  std::set<std::array<std::uint8_t, 12>> seen;
  std::map<std::uint8_t, int> frequency;
  for (int i = 0; i < 5000; ++i) {  // 12 does not divide the pool's 256
    std::array<std::uint8_t, 12> portion{};
    pool.fill(portion);
    EXPECT_TRUE(seen.insert(portion).second) << "portion " << i << " came twice";
    for (const std::uint8_t octet : portion) {
      ++frequency[octet];
    }
  }
  // 60000 octets: each value is expected 234 times, give or take 15.
  EXPECT_EQ(frequency.size(), 256U);
  for (const auto& [octet, count] : frequency) {
    EXPECT_GT(count, 100) << int{octet};
    EXPECT_LT(count, 400) << int{octet};
  }
}

TEST(RandomPool, FillsAnyPortionUpToItsSize) {
  RandomPool pool;
  for (const std::size_t size : {256U, 8U, 256U, 255U, 9U}) {
    std::vector<std::uint8_t> portion(size, 0xA5);
    pool.fill(portion);
    // All of the last eight stayed by chance: 1 in 2^64.
    EXPECT_FALSE(std::all_of(portion.end() - 8, portion.end(), [](auto o) { return o == 0xA5; }));
  }
}

TEST(RandomBytes, ReportsFailureAndLeavesTheOctetsAlone) {
  std::vector<std::uint8_t> tooMany(257, 0xA5);
  EXPECT_EQ(randomBytes(tooMany), EIO);
  EXPECT_TRUE(
      std::all_of(tooMany.begin(), tooMany.end(), [](auto octet) { return octet == 0xA5; }));
}

}  // namespace
}  // namespace zk
