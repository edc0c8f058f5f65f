#include "Report.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <sys/utsname.h>

namespace zk::bench {

double Series::of(double Measurement::*figure) const {
  std::vector<double> values;
  for (const Measurement& round : rounds) {
    values.push_back(round.*figure);
  }
  return median(std::move(values));
}

double Series::ratioTo(const Series& base, double Measurement::*figure) const {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < std::min(rounds.size(), base.rounds.size()); ++i) {
    ratios.push_back(rounds[i].*figure / base.rounds[i].*figure);
  }
  return median(std::move(ratios));
}

std::uint64_t Series::losses() const {
  std::uint64_t all = 0;
  for (const Measurement& round : rounds) {
    all += round.losses;
  }
  return all;
}

double median(std::vector<double> values) {
  if (values.empty()) {
    return 0;
  }
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
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
    text += fmt::format(
        "| {} | {} | {} | {:.2f} | {:.2f} | {:.0f} | {:.0f} | {:.0f} | {} | {} |\n", series.payload,
        series.outstanding, series.name, series.of(&Measurement::cpuMicroseconds),
        series.ratioTo(floor, &Measurement::cpuMicroseconds),
        series.of(&Measurement::roundTripsPerSecond), series.of(&Measurement::p50),
        series.of(&Measurement::p99), series.losses(), series.of(&Measurement::residentKilobytes));
  }
  return text;
}

std::string callTable(const std::vector<Series>& all) {
  std::string text =
      "| a call's relay | CPU ms/s | × floor | wake-ups/s | p50 µs | p99 µs | losses |\n"
      "|:--|--:|--:|--:|--:|--:|--:|\n";
  for (const Series& series : all) {
    text += fmt::format("| {} | {:.2f} | {:.2f} | {:.0f} | {:.0f} | {:.0f} | {} |\n", series.name,
                        series.of(&Measurement::cpuMilliseconds),
                        series.ratioTo(all[0], &Measurement::cpuMilliseconds),
                        series.of(&Measurement::wakeUps), series.of(&Measurement::p50),
                        series.of(&Measurement::p99), series.losses());
  }
  return text;
}

std::string chart(const std::string& title, const std::vector<Bar>& bars, bool logarithmic) {
  // From a tenth on, where it is by factors.
  const auto length = [&](double value) {
    return logarithmic ? std::log10(std::max(value, 0.1) * 10) : value;
  };
  double most = 0;
  for (const Bar& bar : bars) {
    most = std::max(most, length(bar.value));
  }
  const std::size_t height = 80 + 28 * bars.size();
  std::string svg = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"960\" height=\"{0}\" "
      "font-family=\"sans-serif\" font-size=\"13\">\n"
      "<style>text{{fill:#1f2328}}.page{{fill:#ffffff}}"
      "@media(prefers-color-scheme:dark){{text{{fill:#e6edf3}}.page{{fill:#0d1117}}}}</style>\n"
      "<rect class=\"page\" width=\"960\" height=\"{0}\"/>\n"
      "<text x=\"20\" y=\"24\" font-size=\"15\">{1}</text>\n",
      height, title);
  int y = 44;
  for (const Bar& bar : bars) {
    const double width = length(bar.value) * 330 / most;
    svg += fmt::format(
        "<text x=\"430\" y=\"{}\" text-anchor=\"end\">{}</text>"
        "<rect x=\"440\" y=\"{}\" width=\"{:.1f}\" height=\"20\" fill=\"{}\"/>"
        "<text x=\"{:.1f}\" y=\"{}\">{}</text>\n",
        y + 15, bar.label, y, width, bar.colour, 448 + width, y + 15, bar.figure);
    y += 28;
  }
  return svg + fmt::format("<text x=\"20\" y=\"{}\" font-size=\"11\">{}</text>\n</svg>\n",
                           height - 12, machineText());
}

std::string callChart(const std::vector<Series>& all) {
  std::vector<Bar> bars;
  for (const Series& series : all) {
    const double cpu = series.of(&Measurement::cpuMilliseconds);
    const double times = series.ratioTo(all[0], &Measurement::cpuMilliseconds);
    bars.push_back({series.name, cpu, fmt::format("{:.2f} ms/s, {:.2f} × floor", cpu, times)});
    if (series.isProxy) {
      bars.back().colour = orange;
    } else if (&series == &all[0]) {
      bars.back().colour = grey;
    }
  }
  return chart("CPU time per second of a call with sound and pictures (less is better)", bars,
               false);
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
