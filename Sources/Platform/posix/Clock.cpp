#include "Platform/Clock.h"

#include <fmt/format.h>
#include <time.h>

#include "Platform/posix/System.h"

namespace zk {
namespace {

constexpr std::int64_t microsecondsPerSecond = 1'000'000;

tm calendarOf(std::int64_t seconds) {
  const time_t time = seconds;
  tm calendar{};
  gmtime_r(&time, &calendar);
  return calendar;
}

// `digits` decimal digits of `value`, with leading zeros, at `to`.
void writeDigits(char* to, int digits, int value) {
  for (int i = digits - 1; i >= 0; --i) {
    to[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
}

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
    const tm calendar = calendarOf(seconds);
    fmt::format_to_n(last, timestampLength, "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.000Z",
                     calendar.tm_year + 1900, calendar.tm_mon + 1, calendar.tm_mday,
                     calendar.tm_hour, calendar.tm_min, calendar.tm_sec);
    lastSecond = seconds;
  }
  __builtin_memcpy(to, last, timestampLength);
  writeDigits(to + 20, 3, static_cast<int>(microseconds % microsecondsPerSecond / 1000));
}

std::string dateText(std::int64_t microseconds) {
  const tm calendar = calendarOf(microseconds / microsecondsPerSecond);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", calendar.tm_year + 1900,
                     calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min,
                     calendar.tm_sec);
}

}  // namespace zk
