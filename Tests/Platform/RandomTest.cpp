#include <cerrno>
#include <numeric>

#include <gtest/gtest.h>

#include "Base/Bytes.h"
#include "Platform/Random.h"

namespace zk {
namespace {

int asked = 0;

int counting(std::span<std::uint8_t> out) {
  std::iota(out.begin(), out.end(), std::uint8_t{0});
  return ++asked < 4 ? 0 : EIO;
}

TEST(Random, PoolHandsOutEveryOctetOnceAndNothingWhenTheSourceFails) {
  RandomPool pool(counting);
  const std::pair<std::size_t, int> portions[] = {{100, 0}, {100, 100}, {56, 200}, {2, 0},
                                                  {255, 0}, {1, 255},   {2, 0xA5}};
  for (const auto& [size, first] : portions) {
    Bytes portion(size, 0xA5);
    pool.fill(portion);
    EXPECT_EQ(portion[0], first);
  }
  EXPECT_EQ(asked, 4);
}

TEST(Random, SystemReportsFailureAndLeavesTheOctetsAlone) {
  Bytes tooMany(257, 0xA5);
  EXPECT_EQ(randomBytes(tooMany), EIO);
  EXPECT_EQ(tooMany, Bytes(257, 0xA5));
  EXPECT_EQ(randomBytes(std::span(tooMany).first(16)), 0);
  EXPECT_NE(tooMany, Bytes(257, 0xA5));
}

}  // namespace
}  // namespace zk
