#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace zk::bench {

/// What one contestant did in one run.
struct Measurement {
  double roundTripsPerSecond = 0;
  double p50 = 0;  // microseconds
  double p99 = 0;
  double cpuMicroseconds = 0;  // of the relaying process, per datagram relayed
  double residentKilobytes = 0;
  double cpuMilliseconds = 0;  // of the relaying process, per second
  double wakeUps = 0;          // of all its threads, per second
  std::uint64_t roundTrips = 0;
  std::uint64_t losses = 0;
};

/// All rounds of one contestant under one load.
struct Series {
  std::string name;
  bool isProxy = false;
  std::size_t payload = 0;
  unsigned outstanding = 0;
  std::vector<Measurement> rounds;

  /// The median of the rounds.
  double of(double Measurement::*figure) const;
  /// The median of the ratios of rounds that were measured next to each other, so that what the
  /// machine did meanwhile bears on both alike.
  double ratioTo(const Series& base, double Measurement::*figure) const;
  /// Of all rounds together.
  std::uint64_t losses() const;
};

double median(std::vector<double> values);

/// The table in Markdown: one row per series, ratios to the floor under the same load.
std::string table(const std::vector<Series>& all);

/// The same for calls, by what they cost in a second.
std::string callTable(const std::vector<Series>& all);

/// The series of one contestant under one load. It must be there.
const Series& find(const std::vector<Series>& all, const std::string& name, std::size_t payload,
                   unsigned outstanding);

/// One bar of a chart.
struct Bar {
  std::string label;
  double value = 0;
  std::string figure;  // the value in words
  const char* colour = "#1f77b4";
};
inline constexpr const char* grey = "#9aa5b1";
inline constexpr const char* orange = "#d9822b";

/// A bar chart as SVG; with `logarithmic` each factor of ten is of one length.
std::string chart(const std::string& title, const std::vector<Bar>& bars, bool logarithmic);

/// The same for what a call costs in a second.
std::string callChart(const std::vector<Series>& all);

/// The processor and the number of its cores, as the system names them.
std::string machineText();

/// Figures and what they must not pass.
class Verdict {
 public:
  void check(const std::string& what, double value, double bound, const char* unit) {
    const bool holds = value <= bound;
    allHold_ = allHold_ && holds;
    fmt::print("{} {}: {:.2f}{} (at most {:.2f})\n", holds ? "ok  " : "OVER", what, value, unit,
               bound);
  }
  void checkAtLeast(const std::string& what, double value, double bound, const char* unit) {
    const bool holds = value >= bound;
    allHold_ = allHold_ && holds;
    fmt::print("{} {}: {:.2f}{} (at least {:.2f})\n", holds ? "ok  " : "LOW ", what, value, unit,
               bound);
  }
  /// A figure without a bound.
  static void tell(const std::string& what, double value, const char* unit) {
    fmt::print("     {}: {:.2f}{}\n", what, value, unit);
  }
  bool allHold() const { return allHold_; }

 private:
  bool allHold_ = true;
};

}  // namespace zk::bench
