#include <cerrno>
#include <filesystem>
#include <numeric>
#include <stdexcept>

#include <gtest/gtest.h>

#include "Platform/Crypto.h"
#include "Platform/Random.h"
#include "Support.h"

namespace zk {
namespace {

TEST(CryptoDeathTest, SaysAtTheStartWhenThereAreNoDigests) {
  EXPECT_NO_THROW(requireDigests());
  if (std::filesystem::exists("/System/Library")) {
    GTEST_SKIP() << "the system's own library is not configured";
  }
  const test::TemporaryFolder folder;
  test::writeFile(folder / "none.cnf",
                  "openssl_conf = all\n[all]\nproviders = some\n[some]\nnull = on\n"
                  "[on]\nactivate = 1\n");
  const test::Environment configured("OPENSSL_CONF", folder / "none.cnf");
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process where nothing is loaded yet
  const auto start = [] {
    try {
      requireDigests();
    } catch (const std::runtime_error&) {
      _exit(3);
    }
  };
  EXPECT_EXIT(start(), testing::ExitedWithCode(3), "");
}

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
