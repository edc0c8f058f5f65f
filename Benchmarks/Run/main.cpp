// Measures what `zkturn run` costs the programs that it seals: beside the same programs with a
// proxy setting of their own, beside a bare gate, and beside one receive and one send for
// datagrams.

#include <cstdio>

#include <CLI/CLI.hpp>

#include "Relay/Floor.h"
#include "Run/Gate.h"
#include "Run/Rows.h"

namespace zk::bench {
namespace {

constexpr struct {
  const char* name;
  void (*measure)(Comparison&, const Options&, Verdict&);
} parts[] = {{"downloads", compareDownloads}, {"pages", comparePages}, {"quiet", measureQuiet},
             {"datagrams", compareDatagrams}, {"calls", compareCalls}, {"relays", measureRelays},
             {"bursts", measureBurst},        {"crowd", measureCrowd}};

bool run(const Options& options) {
  fmt::print("{}\n{} rounds, medians; zkturn runs as nobody\n\n", machineText(), options.rounds);
  Comparison all;
  Verdict verdict;
  for (const auto& [name, measure] : parts) {
    if (options.only.empty() || options.only == name) {
      measure(all, options, verdict);
    }
  }
  return verdict.allHold();
}

int runWith(int argc, char** argv) {
  Options options;
  std::string far;
  CLI::App app("Measures what a seal costs the programs in it. As root.", "zkturn-bench");
  app.add_option("--rounds", options.rounds)->check(CLI::PositiveNumber);
  app.add_option("--milliseconds", options.milliseconds, "... of each round of datagrams");
  app.add_option("--only", options.only,
                 "downloads, pages, quiet, datagrams, calls, relays, bursts or crowd");
  auto* gate = app.add_subcommand("gate", "")->group("");
  auto* floor = app.add_subcommand("floor", "")->group("");
  floor->add_option("far", far)->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  if (gate->parsed()) {
    runGate(proxyEndpoint(), onInternet(Addresses::pagesPort));
  }
  if (floor->parsed()) {
    const HostPort to = parseHostPort(far).value();
    runFloor(loopback::endpointAt(to.host, to.port));
  }
  if (const std::string hindrance = enterLab(); !hindrance.empty()) {
    throw std::runtime_error("no network lab here: " + hindrance);
  }
  return run(options) ? 0 : 1;
}

}  // namespace
}  // namespace zk::bench

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    return zk::bench::runWith(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "zkturn-bench: {}\n", error.what());
    return 2;
  }
}
