#include "Report.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <sys/utsname.h>

namespace zk::bench {
namespace {

template <typename Figure>
double medianOf(const std::vector<Measurement>& rounds, Figure figure) {
  std::vector<double> values;
  for (const Measurement& round : rounds) {
    values.push_back(figure(round));
  }
  return median(std::move(values));
}

// One bar with its label and its figure.
std::string bar(const Series& series, const Series& floor, double perMicrosecond, int y) {
  const double cpu = series.cpuMicroseconds();
  const char* const colour = series.name == "floor"               ? "#9aa5b1"
                             : series.name.starts_with("zkturnd") ? "#1f77b4"
                                                                  : "#d9822b";
  const double width = cpu * perMicrosecond;
  return fmt::format(
      "<text x=\"190\" y=\"{}\" text-anchor=\"end\">{}</text>"
      "<rect x=\"200\" y=\"{}\" width=\"{:.1f}\" height=\"22\" fill=\"{}\"/>"
      "<text x=\"{:.1f}\" y=\"{}\">{:.2f} µs, {:.2f} × floor</text>\n",
      y + 16, series.name, y, width, colour, 208 + width, y + 16, cpu,
      ratio(series, floor, cpuMicrosecondsOf));
}

}  // namespace

double Series::cpuMicroseconds() const {
  return medianOf(rounds, cpuMicrosecondsOf);
}

double Series::p50() const {
  return medianOf(rounds, p50Of);
}

double Series::p99() const {
  return medianOf(rounds, [](const Measurement& m) { return m.load.p99; });
}

double Series::roundTripsPerSecond() const {
  return medianOf(rounds, [](const Measurement& m) {
    return static_cast<double>(m.load.roundTrips) / m.load.seconds;
  });
}

std::uint64_t Series::losses() const {
  std::uint64_t sum = 0;
  for (const Measurement& round : rounds) {
    sum += round.load.losses;
  }
  return sum;
}

std::size_t Series::residentKilobytes() const {
  return static_cast<std::size_t>(medianOf(
      rounds, [](const Measurement& m) { return static_cast<double>(m.residentKilobytes); }));
}

double median(std::vector<double> values) {
  if (values.empty()) {
    return 0;
  }
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double ratio(const Series& series, const Series& base, double (*figure)(const Measurement&)) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < std::min(series.rounds.size(), base.rounds.size()); ++i) {
    ratios.push_back(figure(series.rounds[i]) / figure(base.rounds[i]));
  }
  return median(std::move(ratios));
}

double cpuMicrosecondsOf(const Measurement& round) {
  return round.cpuMicroseconds;
}

double p50Of(const Measurement& round) {
  return round.load.p50;
}

const Series& find(const std::vector<Series>& all, const std::string& name, std::size_t payload,
                   unsigned outstanding) {
  for (const Series& series : all) {
    if (series.name == name && series.payload == payload && series.outstanding == outstanding) {
      return series;
    }
  }
  throw std::logic_error("not measured: " + name);
}

std::string table(const std::vector<Series>& all) {
  std::string text =
      "| octets | outstanding | relay | CPU µs/datagram | × floor | round trips/s | p50 µs | "
      "p99 µs | losses | resident KiB |\n|--:|--:|:--|--:|--:|--:|--:|--:|--:|--:|\n";
  for (const Series& series : all) {
    const Series& floor = find(all, "floor", series.payload, series.outstanding);
    text += fmt::format("| {} | {} | {} | {:.2f} | {:.2f} | {:.0f} | {:.0f} | {:.0f} | {} | {} |\n",
                        series.payload, series.outstanding, series.name, series.cpuMicroseconds(),
                        ratio(series, floor, cpuMicrosecondsOf), series.roundTripsPerSecond(),
                        series.p50(), series.p99(), series.losses(), series.residentKilobytes());
  }
  return text;
}

std::string chart(const std::vector<Series>& all, std::size_t payload, unsigned outstanding,
                  const std::string& machine) {
  std::vector<const Series*> shown;
  double most = 0;
  for (const Series& series : all) {
    if (series.payload == payload && series.outstanding == outstanding) {
      shown.push_back(&series);
      most = std::max(most, series.cpuMicroseconds());
    }
  }
  const Series& floor = find(all, "floor", payload, outstanding);
  const double perMicrosecond = 400 / most;
  const int height = 80 + 34 * static_cast<int>(shown.size());
  std::string svg = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"800\" height=\"{0}\" "
      "font-family=\"sans-serif\" font-size=\"13\">\n"
      "<rect width=\"800\" height=\"{0}\" fill=\"white\"/>\n"
      "<text x=\"20\" y=\"24\" font-size=\"15\">CPU time per relayed datagram, {1} octets, {2} "
      "round trips outstanding (less is better)</text>\n",
      height, payload, outstanding);
  int y = 44;
  for (const Series* series : shown) {
    svg += bar(*series, floor, perMicrosecond, y);
    y += 34;
  }
  return svg + fmt::format("<text x=\"20\" y=\"{}\" font-size=\"11\">{}</text>\n</svg>\n",
                           height - 12, machine);
}

std::string machineText() {
  std::string model = "unknown processor";
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    if (line.starts_with("model name")) {
      model = line.substr(line.find(':') + 2);
      break;
    }
  }
  utsname system{};
  uname(&system);
  return fmt::format("{}, {} cores, Linux {}", model, std::thread::hardware_concurrency(),
                     system.release);
}

}  // namespace zk::bench
