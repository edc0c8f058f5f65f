#include "Usage.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <vector>

namespace zk::bench {
namespace {

namespace fs = std::filesystem;

/// The number behind `name` in a status file of /proc; 0 without one.
std::size_t numberIn(const fs::path& status, const std::string& name) {
  std::ifstream file(status);
  std::size_t number = 0;
  for (std::string word; file >> word;) {
    if (word == name) {
      file >> number;
      break;
    }
  }
  return number;
}

}  // namespace

Usage::Usage(const loopback::ChildProcess& process, Family counted) {
  std::vector<pid_t> family{process.pid()};
  for (std::size_t i = 0; i < family.size(); ++i) {
    const fs::path folder = fs::path("/proc") / std::to_string(family[i]);
    residentKilobytes += numberIn(folder / "status", "VmRSS:");
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(family[i], &clock) == 0 && clock_gettime(clock, &used) == 0) {
      cpu += std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    }
    std::error_code gone;
    for (const auto& task : fs::directory_iterator(folder / "task", gone)) {
      wakeUps += numberIn(task.path() / "status", "voluntary_ctxt_switches:");
      std::ifstream list(task.path() / "children");
      for (pid_t child = 0; counted == Family::withChildren && list >> child;) {
        family.push_back(child);
      }
    }
  }
}

Measurement measured(const loopback::ChildProcess& process,
                     const std::function<loopback::LoadResult()>& load, Family counted) {
  const Usage before(process, counted);
  const loopback::LoadResult result = load();
  const Usage after(process, counted);
  const std::chrono::duration<double, std::micro> used = after.cpu - before.cpu;
  const auto wakeUps = static_cast<double>(after.wakeUps - before.wakeUps);
  const auto roundTrips = static_cast<double>(result.roundTrips());
  return {.roundTripsPerSecond = roundTrips / result.seconds,
          .p50 = result.percentile(0.50),
          .p99 = result.percentile(0.99),
          .cpuMicroseconds = used.count() / (2 * roundTrips),
          .residentKilobytes = static_cast<double>(after.residentKilobytes),
          .cpuMilliseconds = used.count() / 1000 / result.seconds,
          .wakeUps = wakeUps / result.seconds,
          .roundTrips = result.roundTrips(),
          .losses = result.losses()};
}

}  // namespace zk::bench
