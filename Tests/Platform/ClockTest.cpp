#include <ctime>

#include <gtest/gtest.h>

#include "Platform/Clock.h"
#include "Support.h"
#include "System.h"

namespace zk {
namespace {

TEST(Clock, WritesUTCWithMillisecondsRoundedDownInAnyTimeZone) {
  constexpr std::int64_t second = 1'000'000;
  constexpr std::int64_t newYear = 1'767'225'600 * second;  // 2026-01-01T00:00:00Z
  constexpr std::int64_t day = 86'400 * second;
  const test::Environment elsewhere("TZ", "XST-5:30");
  tzset();
  for (const auto& [microseconds, expected] :
       {std::pair(newYear + day + 300 * second + 7000, "2026-01-02T00:05:00.007Z#"),
        {newYear + 31 * day - 1, "2026-01-31T23:59:59.999Z#"},
        {newYear + 31 * day - 876'001, "2026-01-31T23:59:59.123Z#"},  // the same second once more
        {newYear + 31 * day, "2026-02-01T00:00:00.000Z#"},
        {1'709'164'800 * second, "2024-02-29T00:00:00.000Z#"}}) {
    std::string text(timestampLength + 1, '#');
    writeTimestamp(text.data(), microseconds);
    EXPECT_EQ(text, expected);
  }
  EXPECT_EQ(dateText(newYear + 31 * day - 1), "2026-01-31 23:59:59 +0000");
}

TEST(Clock, CountsTheTimeForWhichTheMachineWasSuspended) {
  const auto isCounted = test::holdsAfterSuspension(30'000, [] {
    timespec awake{};
    clock_gettime(CLOCK_MONOTONIC, &awake);
    return SteadyClock::now().time_since_epoch() >= std::chrono::seconds(awake.tv_sec + 30'000);
  });
  if (!isCounted) {
    GTEST_SKIP() << "no time namespaces here";
  }
  EXPECT_TRUE(*isCounted);
}

}  // namespace
}  // namespace zk
