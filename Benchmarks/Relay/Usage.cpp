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

Usage::Usage(const loopback::ChildProcess& process) {
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
      for (pid_t child = 0; list >> child;) {
        family.push_back(child);
      }
    }
  }
}

}  // namespace zk::bench
