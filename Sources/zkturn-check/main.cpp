#include <cstdio>
#include <exception>

#include <fmt/format.h>

#include "zkturn-check/Report.h"

namespace {

constexpr int carriesUDP = 0;
constexpr int doesNot = 1;
constexpr int wrongUsage = 2;

}  // namespace

int main(int argc, char** argv) {
  try {
    const auto options = zk::check::readOptions(argc, argv);
    if (!options) {
      return carriesUDP;  // help or the version was all that was wanted
    }
    zk::check::Report report(*options);
    const zk::check::Findings findings = zk::check::check(*options, report.watcher());
    report.conclude(findings);
    return findings.carriesUDP ? carriesUDP : doesNot;
  } catch (const std::exception& error) {
    fmt::print(stderr, "zkturn-check: {}\n", error.what());
    return wrongUsage;
  }
}
