#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zk {

/// Nanoseconds on a clock that never goes back, from an origin of the system's choice. It keeps
/// counting while the machine is suspended: what was to last ten minutes is over in the morning.
std::uint64_t monotonicNanoseconds();

/// The same for std::chrono, whose own steady clock may stop during suspend.
struct SteadyClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<SteadyClock>;
  static constexpr bool is_steady = true;

  static time_point now() { return time_point(duration(static_cast<rep>(monotonicNanoseconds()))); }
};

/// Microseconds of UTC since 1970.
std::int64_t wallClockMicroseconds();

/// UTC as year-month-dayThour:minute:second.millisecondsZ, 24 octets, written to `to`.
/// `microseconds` since 1970; the fraction is rounded down to milliseconds.
inline constexpr std::size_t timestampLength = 24;
void writeTimestamp(char* to, std::int64_t microseconds);

/// UTC as "2026-01-31 23:59:59 +0000". `microseconds` since 1970.
std::string dateText(std::int64_t microseconds);

}  // namespace zk
