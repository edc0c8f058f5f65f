#include <array>
#include <ctime>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "Platform/Clock.h"

namespace zk {
namespace {

std::string timestamp(std::int64_t microseconds) {
  std::array<char, timestampLength + 1> text;
  text.fill('#');
  writeTimestamp(text.data(), microseconds);
  EXPECT_EQ(text.back(), '#');  // nothing beyond its length
  return {text.data(), timestampLength};
}

TEST(Clock, WritesUTCWithMillisecondsRoundedDown) {
  constexpr std::int64_t second = 1'000'000;
  constexpr std::int64_t newYear = 1'767'225'600 * second;  // 2026-01-01T00:00:00Z
  constexpr std::int64_t day = 86'400 * second;
  const std::pair<std::int64_t, const char*> cases[] = {
      {newYear + day + 300 * second + 7000, "2026-01-02T00:05:00.007Z"},
      {newYear + 31 * day - 1, "2026-01-31T23:59:59.999Z"},
      {newYear + 31 * day - 876'001, "2026-01-31T23:59:59.123Z"},  // the same second once more
      {newYear + 31 * day, "2026-02-01T00:00:00.000Z"},
      {1'709'164'800 * second, "2024-02-29T00:00:00.000Z"},
      {999, "1970-01-01T00:00:00.000Z"}};
  for (const auto& [microseconds, text] : cases) {
    EXPECT_EQ(timestamp(microseconds), text);
  }
  EXPECT_EQ(dateText(newYear + 31 * day - 1), "2026-01-31 23:59:59 +0000");
}

TEST(Clock, StaysOnUTCInAnyTimeZone) {
  setenv("TZ", "XST-5:30", 1);
  tzset();
  std::string other;
  std::thread([&] { other = timestamp(0); }).join();  // with a calendar cache of its own
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(other, "1970-01-01T00:00:00.000Z");
}

TEST(Clock, WallClockAndMonotonicClocksRunInTheirUnits) {
  const std::int64_t wall = wallClockMicroseconds();
  EXPECT_LE(std::abs(wall / 1'000'000 - std::time(nullptr)), 1);
  const std::uint64_t before = monotonicNanoseconds();
  const std::uint64_t coarseBefore = coarseMonotonicNanoseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(40));
  const std::uint64_t passed = monotonicNanoseconds() - before;
  EXPECT_GE(passed, 40'000'000U);
  EXPECT_LT(passed, 2'000'000'000U);
  const std::uint64_t coarsePassed = coarseMonotonicNanoseconds() - coarseBefore;
  EXPECT_GE(coarsePassed, 20'000'000U);
  EXPECT_LT(coarsePassed, 2'000'000'000U);
  EXPECT_LT(coarseBefore / 1'000'000'000U, before / 1'000'000'000U + 2);
}

}  // namespace
}  // namespace zk
