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

class Checker {
 public:
  Checker(Look& look, const CheckOptions& options, Report& report)
      : look_(look), options_(options), report_(report) {}

  Quality run() {
    measureRoundTrips();
    findLargest();
    look_.comparePorts();
    waitIdle();
    return std::move(quality_);
  }

 private:
  void measureRoundTrips();
  void findLargest();
  void waitIdle();
  // For a path whose round trips are known by now.
  Milliseconds limitNow() const;

  Look& look_;
  const CheckOptions& options_;
  Report& report_;
  Quality quality_;
};

void Checker::measureRoundTrips() {
  std::vector<double>& trips = quality_.roundTrips;
  const auto end = look_.stepEnd() + options_.count * pause;
  while (quality_.sent < options_.count && Clock::now() < end) {
    std::this_thread::sleep_for(pause);
    ++quality_.sent;
    if (const auto answer = look_.ask(look_.server(), answerLimit, 1)) {
      trips.push_back(Milliseconds(answer->roundTrip).count());
    }
    report_.showProgress(quality_.sent, options_.count);
  }
  std::sort(trips.begin(), trips.end());
  const std::size_t lost = quality_.sent - trips.size();
  const std::string answered = fmt::format("{} of {} answered", trips.size(), quality_.sent);
  look_.step(lost == 0 ? Mark::passed : Mark::noted, "round trips",
             trips.empty() ? answered
                           : fmt::format("{}, min/median/max {:.1f}/{:.1f}/{:.1f} ms", answered,
                                         trips.front(), trips[trips.size() / 2], trips.back()));
  if (lost > 0) {
    look_.remark(fmt::format("{:.0f} % of the datagrams or their answers were lost",
                             100.0 * static_cast<double>(lost) / quality_.sent));
  }
}

void Checker::findLargest() {
  std::size_t& largest = quality_.largestDatagram;
  std::size_t failed = 0;
  for (const std::size_t size : sizes) {
    if (!look_.ask(look_.server(), limitNow(), tries, size)) {
      failed = size;
      break;
    }
    largest = size;
  }
  const bool isEnough = largest >= sizeOfMedia;
  look_.step(
      isEnough ? Mark::passed : Mark::noted, "size",
      largest == 0
          ? fmt::format("not even {} octets pass, or the STUN server answers short requests only",
                        failed)
      : failed == 0 ? fmt::format("{} octets pass", largest)
                    : fmt::format("{} octets pass, {} do not", largest, failed));
  if (!isEnough) {
    look_.remark(
        fmt::format("datagrams of {} octets, as WebRTC sends them, do not pass", sizeOfMedia));
  }
}

void Checker::waitIdle() {
  if (options_.idleSeconds == 0) {
    return;
  }
  look_.wait(std::chrono::seconds(options_.idleSeconds));
  const bool isAnswered = look_.ask(look_.server(), limitNow(), tries).has_value();
  const auto end = look_.takeEnd();
  quality_.survivesIdle = isAnswered && !end;
  const std::string silence = fmt::format("{} s of silence", options_.idleSeconds);
  if (*quality_.survivesIdle) {
    look_.step(Mark::passed, "idle", "the association survives " + silence);
    return;
  }
  look_.step(Mark::noted, "idle",
             end ? fmt::format("the proxy ended its connection after {}: {}", silence, *end)
                 : "no answer any more after " + silence);
  look_.remark("it forgets an association after " + silence);
}

Milliseconds Checker::limitNow() const {
  const auto& trips = quality_.roundTrips;
  return trips.empty() ? answerLimit
                       : std::clamp(Milliseconds(4 * trips.back()), shortestLimit, answerLimit);
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
    quality = Checker(look, options, report).run();
    look.conclude();
  } catch (const Failure& failure) {
    look.conclude(failure);
  }
  report.conclude(look.findings(), quality);
  return statusOf(look.findings().outcome);
}

}  // namespace zk
