#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Load.h"

namespace zk::bench {

/// What one contestant did in one run.
struct Measurement {
  LoadResult load;
  double cpuMicroseconds = 0;  // of the relaying process, per datagram relayed
  std::size_t residentKilobytes = 0;
};

/// All rounds of one contestant under one load.
struct Series {
  std::string name;
  bool isProxy = false;
  std::size_t payload = 0;
  unsigned outstanding = 0;
  std::vector<Measurement> rounds;

  /// Each figure is the median of the rounds, the losses are their sum.
  double cpuMicroseconds() const;
  double p50() const;
  double p99() const;
  double roundTripsPerSecond() const;
  std::uint64_t losses() const;
  std::size_t residentKilobytes() const;
};

double median(std::vector<double> values);

/// How a figure of `series` compares to that of `base`: the median of the ratios of rounds that
/// were measured next to each other, so that what the machine did meanwhile bears on both alike.
double ratio(const Series& series, const Series& base, double (*figure)(const Measurement&));

double cpuMicrosecondsOf(const Measurement& round);
double p50Of(const Measurement& round);

/// The table in Markdown: one row per series, ratios to the floor under the same load.
std::string table(const std::vector<Series>& all);

/// The series of one contestant under one load. It must be there.
const Series& find(const std::vector<Series>& all, const std::string& name, std::size_t payload,
                   unsigned outstanding);

/// A bar chart of CPU per datagram under one load, as SVG.
std::string chart(const std::vector<Series>& all, std::size_t payload, unsigned outstanding,
                  const std::string& machine);

/// The processor and the number of its cores, as the system names them.
std::string machineText();

}  // namespace zk::bench
