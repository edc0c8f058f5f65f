#include <cerrno>

#include <gtest/gtest.h>

#include "Base/Bytes.h"
#include "Platform/Random.h"

namespace zk {
namespace {

TEST(Random, SystemReportsFailureAndLeavesTheOctetsAlone) {
  Bytes tooMany(257, 0xA5);
  EXPECT_EQ(randomBytes(tooMany), EIO);
  EXPECT_EQ(tooMany, Bytes(257, 0xA5));
  EXPECT_EQ(randomBytes(std::span(tooMany).first(16)), 0);
  EXPECT_NE(tooMany, Bytes(257, 0xA5));
}

}  // namespace
}  // namespace zk
