#include "Platform/Clock.h"

#include <fmt/chrono.h>
#include <fmt/compile.h>
#include <time.h>

#include "Platform/posix/System.h"

namespace zk {
namespace {

constexpr std::int64_t microsecondsPerSecond = 1'000'000;

}  // namespace

std::uint64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(clockThatCountsSuspension, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
         static_cast<std::uint64_t>(now.tv_nsec);
}

std::int64_t wallClockMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * microsecondsPerSecond + now.tv_nsec / 1000;
}

void writeTimestamp(char* to, std::int64_t microseconds) {
  const std::int64_t seconds = microseconds / microsecondsPerSecond;
  // Thousands of lines fall into one second and share its calendar fields.
  thread_local std::int64_t lastSecond = -1;
  thread_local char last[timestampLength];
  if (seconds != lastSecond) {
    fmt::format_to_n(last, timestampLength, "{:%Y-%m-%dT%H:%M:%S}.000Z", fmt::gmtime(seconds));
    lastSecond = seconds;
  }
  __builtin_memcpy(to, last, timestampLength);
  fmt::format_to(to + 20, FMT_COMPILE("{:03}"), microseconds % microsecondsPerSecond / 1000);
}

std::string dateText(std::int64_t microseconds) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S} +0000",
                     fmt::gmtime(microseconds / microsecondsPerSecond));
}

}  // namespace zk
