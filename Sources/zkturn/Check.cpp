// What a look at a proxy goes on with when all that a relay needs is there: how well it works.

#include "zkturn/Check.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>

#include "zkturn/Look.h"
#include "zkturn/Report.h"

namespace zk {
namespace {

using Clock = Deadline::clock;
using Milliseconds = Look::Milliseconds;
using Mark = Step::Mark;

constexpr Milliseconds answerLimit{1500};
constexpr Milliseconds shortestLimit{300};
constexpr std::chrono::milliseconds pause{20};  // between probes: 50 a second are no flood

constexpr unsigned tries = 3;  // before silence is believed

// Payloads, all multiples of 4: what WebRTC sends, what fits the usual links, and beyond.
constexpr std::size_t sizes[] = {576, 1000, 1200, 1280, 1352, 1400, 1452, 1472, 2048, 4096, 8192};
constexpr std::size_t sizeOfMedia = 1200;

// For a path whose round trips, in order of size, are known by now.
Milliseconds limitAfter(const std::vector<double>& roundTrips) {
  return roundTrips.empty()
             ? answerLimit
             : std::clamp(Milliseconds(4 * roundTrips.back()), shortestLimit, answerLimit);
}

void measureRoundTrips(Look& look, unsigned count, Report& report, Quality& quality) {
  std::vector<double>& trips = quality.roundTrips;
  const auto end = look.stepEnd() + count * pause;
  while (quality.sent < count && Clock::now() < end) {
    std::this_thread::sleep_for(pause);
    ++quality.sent;
    if (const auto answer = look.ask(look.server(), answerLimit, 1)) {
      trips.push_back(Milliseconds(answer->roundTrip).count());
    }
    report.showProgress(quality.sent, count);
  }
  std::sort(trips.begin(), trips.end());
  const std::size_t lost = quality.sent - trips.size();
  const std::string answered = fmt::format("{} of {} answered", trips.size(), quality.sent);
  look.step(lost == 0 ? Mark::passed : Mark::noted, "round trips",
            trips.empty() ? answered
                          : fmt::format("{}, min/median/max {:.1f}/{:.1f}/{:.1f} ms", answered,
                                        trips.front(), trips[trips.size() / 2], trips.back()));
  if (lost > 0) {
    look.remark(fmt::format("{:.0f} % of the datagrams or their answers were lost",
                            100.0 * static_cast<double>(lost) / quality.sent));
  }
}

void findLargest(Look& look, Quality& quality) {
  std::size_t& largest = quality.largestDatagram;
  std::size_t failed = 0;
  for (const std::size_t size : sizes) {
    if (!look.ask(look.server(), limitAfter(quality.roundTrips), tries, size)) {
      failed = size;
      break;
    }
    largest = size;
  }
  const bool isEnough = largest >= sizeOfMedia;
  look.step(
      isEnough ? Mark::passed : Mark::noted, "size",
      largest == 0
          ? fmt::format("not even {} octets pass, or the STUN server answers short requests only",
                        failed)
      : failed == 0 ? fmt::format("{} octets pass", largest)
                    : fmt::format("{} octets pass, {} do not", largest, failed));
  if (!isEnough) {
    look.remark(
        fmt::format("datagrams of {} octets, as WebRTC sends them, do not pass", sizeOfMedia));
  }
}

void waitIdle(Look& look, unsigned seconds, Quality& quality) {
  if (seconds == 0) {
    return;
  }
  look.wait(std::chrono::seconds(seconds));
  const bool isAnswered =
      look.ask(look.server(), limitAfter(quality.roundTrips), tries).has_value();
  const auto end = look.takeEnd();
  quality.survivesIdle = isAnswered && !end;
  const std::string silence = fmt::format("{} s of silence", seconds);
  if (*quality.survivesIdle) {
    look.step(Mark::passed, "idle", "the association survives " + silence);
    return;
  }
  look.step(Mark::noted, "idle",
            end ? fmt::format("the proxy ended its connection after {}: {}", silence, *end)
                : "no answer any more after " + silence);
  look.remark("it forgets an association after " + silence);
}

int statusOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::carriesUDP:
      return 0;
    case Outcome::unknown:
      return 3;
    default:
      return 1;
  }
}

}  // namespace

int check(const ProxyOptions& proxy, const CheckOptions& options) {
  const std::optional<std::string> password = readPassword(proxy);
  Report report(proxy, options);
  Look look(proxy, password, [&](const Step& step) { report.show(step); });
  Quality quality;
  try {
    look.findMapping();
    measureRoundTrips(look, options.count, report, quality);
    findLargest(look, quality);
    look.comparePorts();
    waitIdle(look, options.idleSeconds, quality);
    look.conclude();
  } catch (const Failure& failure) {
    look.conclude(failure);
  }
  report.conclude(look.findings(), quality);
  return statusOf(look.findings().outcome);
}

}  // namespace zk
