// Measures what relaying costs: the daemon beside a bare forwarder and beside SOCKS5 servers, all
// under the same load, interleaved in one run.

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <CLI/CLI.hpp>

#include "Call.h"
#include "Contestants.h"
#include "FarSide.h"
#include "Flood.h"
#include "Floor.h"
#include "Independence.h"
#include "Loopback/DaemonProcess.h"
#include "Loopback/TURNClient.h"
#include "Platform/Clock.h"
#include "Report.h"
#include "Usage.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;

constexpr unsigned manyClients = 500;
constexpr unsigned crowd = 5000;

struct Options {
  std::string daemon = programBeside("zkturnd");
  int rounds = 21;
  unsigned milliseconds = 200;
  std::uint64_t endurance = 10'000'000;  // datagrams
  bool withoutProxies = false;
  std::vector<std::string> beside;  // other builds of the daemon
  std::string svg;

  std::chrono::milliseconds perRun() const { return std::chrono::milliseconds(milliseconds); }
};

struct LoadKind {
  std::size_t payload;
  unsigned outstanding;
};
constexpr LoadKind loads[] = {{200, 32}, {200, 8}, {200, 4}, {200, 1}, {20, 32}, {1200, 32}};

Measurement measure(const Contestant& contestant, const LoadKind& load,
                    std::chrono::milliseconds duration, unsigned burst = 1) {
  return measured(contestant.process(), [&] {
    return runLoad(contestant.legs(), {.payload = load.payload,
                                       .outstanding = load.outstanding,
                                       .duration = duration,
                                       .burst = burst});
  });
}

/// The floor first, then all that are compared with it, and how they are called.
std::vector<std::pair<std::string, std::unique_ptr<Contestant>>> contestantsOf(
    const Options& options, std::uint16_t farPort) {
  using enum DaemonForm;
  std::vector<std::pair<std::string, std::unique_ptr<Contestant>>> all;
  const auto add = [&](const std::string& prefix, std::unique_ptr<Contestant> contestant) {
    const std::string name = prefix + contestant->name();
    all.emplace_back(name, std::move(contestant));
  };
  add("", makeFloor(farPort));
  for (const DaemonForm form : {channelData, indications}) {
    add("zkturnd, ", makeDaemon(options.daemon, farPort, form));
    for (const std::string& binary : options.beside) {
      add(binary + ", ", makeDaemon(binary, farPort, form));
    }
  }
  if (!options.withoutProxies) {
    for (auto& proxy : makeProxies(farPort)) {
      add("", std::move(proxy));
    }
  }
  return all;
}

std::vector<Series> compare(const Options& options) {
  const FarSide farSide;
  const auto contestants = contestantsOf(options, farSide.port());
  std::vector<Series> all;
  for (const LoadKind& load : loads) {
    const std::size_t first = all.size();
    for (const auto& [name, contestant] : contestants) {
      all.push_back({name, contestant->isProxy(), load.payload, load.outstanding, {}});
      measure(*contestant, load, 100ms);  // warm
    }
    for (int round = 0; round < options.rounds; ++round) {
      for (std::size_t i = 0; i < contestants.size(); ++i) {
        all[first + i].rounds.push_back(measure(*contestants[i].second, load, options.perRun()));
      }
    }
  }
  return all;
}

/// A fifth as many rounds, as each takes its time.
std::vector<Series> compareCalls(const Options& options) {
  const FarSide farSide({}, KitSocket::boundUDP(), callDistance);
  const auto contestants = contestantsOf(options, farSide.port());
  std::vector<Series> all;
  for (const auto& [name, contestant] : contestants) {
    all.push_back({name, contestant->isProxy(), 0, 0, {}});
  }
  for (int round = 0; round < (options.rounds + 4) / 5; ++round) {
    for (std::size_t i = 0; i < contestants.size(); ++i) {
      const Contestant& contestant = *contestants[i].second;
      all[i].rounds.push_back(measured(
          contestant.process(), [&] { return runCall(contestant.legs()[0], callDuration); }));
    }
  }
  return all;
}

/// CPU per datagram at 500 allocations, × that at one: with as many datagrams for each of the 500
/// in its turn as the one has, with fewer, and with one, which wakes the daemon for itself alone.
void compareMany(const Options& options, std::uint16_t farPort, Verdict& verdict) {
  constexpr unsigned bursts[] = {loads[0].outstanding, 8, 1};
  const auto one = makeDaemon(options.daemon, farPort, DaemonForm::channelData);
  const auto many = makeDaemon(options.daemon, farPort, DaemonForm::channelData, manyClients);
  Series costOfOne;
  std::array<Series, std::size(bursts)> costOfMany;
  for (int round = 0; round < options.rounds; ++round) {
    costOfOne.rounds.push_back(measure(*one, loads[0], options.perRun()));
    for (std::size_t i = 0; i < std::size(bursts); ++i) {
      costOfMany[i].rounds.push_back(measure(*many, loads[0], options.perRun(), bursts[i]));
    }
  }
  for (std::size_t i = 0; i < std::size(bursts); ++i) {
    verdict.check(fmt::format("CPU per datagram at {} allocations, {} at a time, × that at one",
                              manyClients, bursts[i]),
                  costOfMany[i].ratioTo(costOfOne, &Measurement::cpuMicroseconds), 1.3, "");
  }
}

void measureCrowd(const Options& options, std::uint16_t farPort, Verdict& verdict) {
  const auto none = makeDaemon(options.daemon, farPort, DaemonForm::indications, 0);
  const auto all = makeDaemon(options.daemon, farPort, DaemonForm::indications, crowd);
  const auto resident = [](const auto& daemon) {
    return static_cast<double>(daemon->process().residentKilobytes());
  };
  verdict.check(fmt::format("resident memory with {} allocations", crowd), resident(all) / 1024, 40,
                " MiB");
  Verdict::tell("resident memory per idle allocation", (resident(all) - resident(none)) / crowd,
                " KiB");
  verdict.check(fmt::format("threads more with {} allocations than with none", crowd),
                static_cast<double>(all->process().threadCount()) -
                    static_cast<double>(none->process().threadCount()),
                1, "");
}

Measurement measureFlood(const Contestant& daemon, const FloodKind& kind) {
  constexpr std::uint64_t count = 15'000;
  const auto before = daemon.process().cpuTime();
  const auto datagrams = static_cast<double>(flood(daemon, kind, count));
  const auto used = daemon.process().cpuTime() - before;
  return {.cpuMicroseconds = std::chrono::duration<double, std::micro>(used).count() / datagrams};
}

/// Whether a datagram that is dropped costs more than one that is relayed. What requests cost is
/// told, without a bound: some of them are answered.
void compareFloods(const Options& options, Verdict& verdict) {
  const FarSide farSide(spoil);
  const auto daemon = makeDaemon(options.daemon, farSide.port(), DaemonForm::channelData);
  const std::vector<FloodKind> kinds = badInput(*daemon);
  Series relaying;
  std::vector<Series> flooding(kinds.size());
  for (int round = 0; round < options.rounds; ++round) {
    relaying.rounds.push_back(measure(*daemon, loads[0], options.perRun()));
    for (std::size_t i = 0; i < kinds.size(); ++i) {
      flooding[i].rounds.push_back(measureFlood(*daemon, kinds[i]));
    }
  }
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    const double times = flooding[i].ratioTo(relaying, &Measurement::cpuMicroseconds);
    const std::string what =
        "CPU per datagram in a flood of " + kinds[i].name + ", × that of relaying";
    if (kinds[i].path == FloodKind::Path::request) {
      Verdict::tell(what, times, "");
    } else {
      verdict.check(what, times, 1.0, "");
    }
  }
}

/// Milliseconds from the signed Allocate request to its answer.
void measureOpening(const Options& options, std::uint16_t farPort, Verdict& verdict) {
  const auto daemon = makeDaemon(options.daemon, farPort, DaemonForm::indications, 0);
  TURNClient client(daemon->port());
  std::vector<double> milliseconds;
  for (int i = 0; i < 200; ++i) {
    const bool first = client.nonce().empty();
    const std::uint64_t start = monotonicNanoseconds();
    if (!client.allocate().success()) {
      throw std::runtime_error("the daemon gave no relay");
    }
    if (!first) {  // the first takes a challenge more
      milliseconds.push_back(static_cast<double>(monotonicNanoseconds() - start) / 1e6);
    }
    client.refresh(0);
  }
  verdict.check("opening an allocation, p50", median(milliseconds), 2.0, " ms");
}

void measureEndurance(const Options& options, std::uint16_t farPort, Verdict& verdict) {
  const auto daemon = makeDaemon(options.daemon, farPort, DaemonForm::channelData);
  // Lines that are still to be written take room that is given back.
  const auto residentWhenQuiet = [&] {
    std::this_thread::sleep_for(200ms);
    return daemon->process().residentKilobytes();
  };
  measure(*daemon, loads[0], 3s);
  const auto before = residentWhenQuiet();
  std::uint64_t relayed = 0;
  std::uint64_t losses = 0;
  while (relayed < options.endurance) {
    const Measurement part = measure(*daemon, loads[0], 5s);
    relayed += 2 * part.roundTrips;
    losses += part.losses;
  }
  const auto after = residentWhenQuiet();
  fmt::print("     {} datagrams relayed, {} lost; resident {} KiB before, {} KiB after\n", relayed,
             losses, before, after);
  // The buffers of the logs keep some. A leak of one octet per datagram would be ten megabytes.
  verdict.check("growth of resident memory over them",
                static_cast<double>(after) - static_cast<double>(before), 512, " KiB");
}

/// A bound that is one where a receive and a send cost 5 µs and another where they cost 10 or more,
/// and in proportion in between: the cheaper they are, the more our own work shows.
double scaled(double receiveAndSend, double at5, double at10) {
  return at5 + (at10 - at5) * std::clamp((receiveAndSend - 5) / 5, 0.0, 1.0);
}

void judge(const std::vector<Series>& all, Verdict& verdict) {
  constexpr auto cpu = &Measurement::cpuMicroseconds;
  const auto toFloor = [&](const char* form, std::size_t payload, unsigned outstanding,
                           double Measurement::*figure) {
    return find(all, fmt::format("zkturnd, {}", form), payload, outstanding)
        .ratioTo(find(all, "floor", payload, outstanding), figure);
  };
  const double cost = find(all, "floor", 200, 1).of(cpu);
  Verdict::tell("a receive and a send on this machine, at 1 outstanding", cost, " µs");
  const struct {
    unsigned outstanding;
    double bound;
  } bounds[] = {
      {1, scaled(cost, 1.25, 0.95)}, {8, scaled(cost, 1.0, 0.85)}, {32, scaled(cost, 0.8, 0.75)}};
  for (const auto& [outstanding, bound] : bounds) {
    verdict.check(
        fmt::format("CPU per datagram at {} outstanding, ChannelData, × floor", outstanding),
        toFloor("ChannelData", 200, outstanding, cpu), bound, "");
  }
  verdict.check("CPU per datagram of 1200 octets, ChannelData, × floor",
                toFloor("ChannelData", 1200, 32, cpu), 0.9, "");
  Verdict::tell("CPU per datagram at 32 outstanding, indications, × floor",
                toFloor("indications", 200, 32, cpu), "");
  verdict.check("round trip at 1 outstanding, p50, ChannelData, × floor",
                toFloor("ChannelData", 200, 1, &Measurement::p50), 1.1, "");
}

void judgeCalls(const std::vector<Series>& calls, Verdict& verdict) {
  constexpr auto cpu = &Measurement::cpuMilliseconds;
  const Series& ours = find(calls, "zkturnd, ChannelData", 0, 0);
  verdict.check("CPU per second of a call, ChannelData, × floor", ours.ratioTo(calls[0], cpu), 1.25,
                "");
  for (const Series& series : calls) {
    if (series.isProxy) {
      verdict.check("CPU per second of a call, ChannelData, against " + series.name, ours.of(cpu),
                    series.of(cpu), " ms");
    }
  }
}

void measureCalls(const Options& options, Verdict& verdict) {
  const std::vector<Series> calls = compareCalls(options);
  fmt::print("{}\n", callTable(calls));
  if (!options.svg.empty()) {
    std::ofstream(options.svg) << callChart(calls);
  }
  judgeCalls(calls, verdict);
}

bool run(const Options& options) {
  fmt::print("{}\n{} rounds of {} ms each, medians\n\n", machineText(), options.rounds,
             options.milliseconds);
  const std::vector<Series> all = compare(options);
  fmt::print("{}\n", table(all));
  Verdict verdict;
  measureCalls(options, verdict);
  judge(all, verdict);
  const FarSide farSide;
  compareMany(options, farSide.port(), verdict);
  measureCrowd(options, farSide.port(), verdict);
  compareFloods(options, verdict);
  measureOpening(options, farSide.port(), verdict);
  if (options.endurance > 0) {
    measureEndurance(options, farSide.port(), verdict);
  }
  return verdict.allHold();
}

int runWith(int argc, char** argv) {
  Options options;
  IndependenceOptions independence;
  std::uint16_t farPort = 0;
  CLI::App app("Measures what relaying costs.", "zkturnd-bench");
  app.add_option("--daemon", options.daemon, "The daemon's program")->check(CLI::ExistingFile);
  app.add_option("--rounds", options.rounds);
  app.add_option("--milliseconds", options.milliseconds, "... of each round");
  app.add_option("--endurance", options.endurance, "Datagrams to relay at the end");
  app.add_flag("--no-proxies", options.withoutProxies, "Leave the SOCKS5 servers out");
  app.add_option("--beside", options.beside, "Other builds of the daemon, to compare with")
      ->check(CLI::ExistingFile);
  app.add_option("--svg", options.svg, "Draw the chart into this file")->take_last();
  auto* alone = app.add_subcommand("independence", "What clients feel of each other");
  alone->fallthrough();
  alone->add_option("--json", independence.json, "Write the results into this file");
  alone->add_option("--before", independence.before, "Earlier results, to stand beside these")
      ->check(CLI::ExistingFile);
  alone->add_option("--only", independence.only, "Rows whose names hold this text");
  auto* call = app.add_subcommand("call", "Only what a call costs");
  call->fallthrough();
  auto* floor = app.add_subcommand("floor", "")->group("");
  auto* proxy = app.add_subcommand("proxy", "")->group("");
  for (auto* inChild : {floor, proxy}) {
    inChild->add_option("port", farPort)->required();
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  if (floor->parsed()) {
    runFloor(localEndpoint(farPort));
  }
  if (proxy->parsed()) {
    runProxy(farPort);
    return 0;
  }
  if (call->parsed()) {
    Verdict verdict;
    measureCalls(options, verdict);
    return verdict.allHold() ? 0 : 1;
  }
  if (alone->parsed()) {
    independence.daemon = options.daemon;
    independence.svg = options.svg;
    return runIndependence(independence) ? 0 : 1;
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
    fmt::print(stderr, "zkturnd-bench: {}\n", error.what());
    return 2;
  }
}
