// Measures what relaying costs: the daemon beside a bare forwarder and beside SOCKS5 servers, all
// under the same load, interleaved in one run.

#include <array>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "ChildProcess.h"
#include "Contestants.h"
#include "FarSide.h"
#include "Flood.h"
#include "Floor.h"
#include "Loopback/DaemonConfig.h"
#include "Loopback/DaemonProcess.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/TURNClient.h"
#include "Platform/Clock.h"
#include "Report.h"

namespace zk::bench {
namespace {

using namespace std::chrono_literals;

constexpr unsigned manyClients = 500;

struct Options {
  int rounds = 21;
  std::chrono::milliseconds perRun{200};
  std::uint64_t endurance = 10'000'000;  // datagrams
  bool withProxies = true;
  std::vector<std::string> beside;  // other builds of the daemon
  std::string svg;
};

struct LoadKind {
  std::size_t payload;
  unsigned outstanding;
};
constexpr LoadKind loads[] = {{200, 32}, {200, 1}, {20, 32}, {1200, 32}};

/// One line of the verdict: a figure and what it must not pass.
class Verdict {
 public:
  void check(const std::string& what, double value, double bound, const char* unit) {
    const bool holds = value <= bound;
    allHold_ = allHold_ && holds;
    fmt::print("{} {}: {:.2f}{} (at most {:.2f})\n", holds ? "ok  " : "OVER", what, value, unit,
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

Measurement measure(const Contestant& contestant, const LoadKind& load,
                    std::chrono::milliseconds duration, unsigned burst = 1) {
  const auto before = cpuTimeWithChildren(contestant.pid());
  Measurement result;
  result.load = runLoad(contestant.endpoints(), load.payload, load.outstanding, duration, burst);
  const auto used = cpuTimeWithChildren(contestant.pid()) - before;
  const double datagrams = 2.0 * static_cast<double>(result.load.roundTrips);
  result.cpuMicroseconds = std::chrono::duration<double, std::micro>(used).count() / datagrams;
  result.residentKilobytes = residentWithChildren(contestant.pid());
  return result;
}

std::vector<Series> compare(const Options& options, std::uint16_t farPort) {
  std::vector<std::unique_ptr<Contestant>> contestants;
  contestants.push_back(makeFloor(farPort));
  contestants.push_back(makeDaemon(farPort, DaemonForm::channelData));
  contestants.push_back(makeDaemon(farPort, DaemonForm::indications));
  for (const std::string& binary : options.beside) {
    contestants.push_back(makeDaemon(farPort, DaemonForm::channelData, 1, binary));
    contestants.push_back(makeDaemon(farPort, DaemonForm::indications, 1, binary));
  }
  if (options.withProxies) {
    for (auto& proxy : makeProxies(farPort)) {
      contestants.push_back(std::move(proxy));
    }
  }
  std::vector<Series> all;
  for (const LoadKind& load : loads) {
    const std::size_t first = all.size();
    for (const auto& contestant : contestants) {
      all.push_back(
          {contestant->name(), contestant->isProxy(), load.payload, load.outstanding, {}});
      measure(*contestant, load, 100ms);  // warm
    }
    for (int round = 0; round < options.rounds; ++round) {
      for (std::size_t i = 0; i < contestants.size(); ++i) {
        all[first + i].rounds.push_back(measure(*contestants[i], load, options.perRun));
      }
    }
  }
  return all;
}

/// CPU per datagram at 500 allocations, × that at one, and KiB per idle allocation.
///
/// The one has 32 round trips outstanding. Of the 500 each has as many in its turn: the bound is
/// for that. How much dearer shorter bursts are is told as well. A datagram that comes alone wakes
/// its relay's thread for itself alone.
void compareMany(const Options& options, std::uint16_t farPort, Verdict& verdict) {
  constexpr unsigned bursts[] = {loads[0].outstanding, 8, 1};
  const auto one = makeDaemon(farPort, DaemonForm::channelData);
  const std::size_t residentOfOne = residentWithChildren(one->pid());
  const auto many = makeDaemon(farPort, DaemonForm::channelData, manyClients);
  const std::size_t residentOfMany = residentWithChildren(many->pid());
  Series costOfOne;
  std::array<Series, std::size(bursts)> costOfMany;
  for (int round = 0; round < options.rounds; ++round) {
    costOfOne.rounds.push_back(measure(*one, loads[0], options.perRun));
    for (std::size_t i = 0; i < std::size(bursts); ++i) {
      costOfMany[i].rounds.push_back(measure(*many, loads[0], options.perRun, bursts[i]));
    }
  }
  for (std::size_t i = 0; i < std::size(bursts); ++i) {
    const double times = ratio(costOfMany[i], costOfOne, cpuMicrosecondsOf);
    const std::string what = fmt::format(
        "CPU per datagram at {} allocations, {} at a time, × that at one", manyClients, bursts[i]);
    if (i == 0) {
      verdict.check(what, times, 1.3, "");
    } else {
      Verdict::tell(what, times, "");
    }
  }
  verdict.check("resident memory per idle allocation",
                static_cast<double>(residentOfMany - residentOfOne) / (manyClients - 1), 120,
                " KiB");
}

Measurement measureFlood(const Contestant& daemon, const FloodKind& kind) {
  constexpr std::uint64_t count = 15'000;
  const auto before = cpuTimeWithChildren(daemon.pid());
  const auto datagrams = static_cast<double>(flood(daemon, kind, count));
  const auto used = cpuTimeWithChildren(daemon.pid()) - before;
  Measurement result;
  result.cpuMicroseconds = std::chrono::duration<double, std::micro>(used).count() / datagrams;
  return result;
}

/// Whether bad input costs more than good input. Datagrams that are dropped compare to relayed
/// ones. Requests that are refused compare to good ones; these are answered too, so the two are
/// told to be about the same, without a bound.
void compareFloods(const Options& options, std::uint16_t farPort, Verdict& verdict) {
  const auto daemon = makeDaemon(farPort, DaemonForm::channelData);
  const std::vector<FloodKind> kinds = badInput(*daemon);
  const FloodKind good = goodRequest(*daemon);
  Series relaying;
  Series answering;
  std::vector<Series> flooding(kinds.size());
  for (int round = 0; round < options.rounds; ++round) {
    relaying.rounds.push_back(measure(*daemon, loads[0], options.perRun));
    answering.rounds.push_back(measureFlood(*daemon, good));
    for (std::size_t i = 0; i < kinds.size(); ++i) {
      flooding[i].rounds.push_back(measureFlood(*daemon, kinds[i]));
    }
  }
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    const std::string what = "CPU per datagram in a flood of " + kinds[i].name + ", × that of ";
    if (kinds[i].path == FloodKind::Path::answered) {
      Verdict::tell(what + "good requests", ratio(flooding[i], answering, cpuMicrosecondsOf), "");
    } else {
      verdict.check(what + "relaying", ratio(flooding[i], relaying, cpuMicrosecondsOf), 1.0, "");
    }
  }
}

/// Milliseconds from the signed Allocate request to its answer.
void measureOpening(std::uint16_t farPort, Verdict& verdict) {
  loopback::SOCKS5Script script;
  script.announcePort = farPort;
  loopback::SOCKS5Server proxy(script);
  loopback::DaemonConfig config;
  config.proxyPort = proxy.port();
  loopback::DaemonProcess daemon(ZK_DAEMON, {{"ZK_STUN_IPS", "127.0.0.1:3478"}});
  daemon.write(config.line());
  const auto port = daemon.waitReady(5s);
  loopback::TURNClient client(port.value_or(0));
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
  const auto daemon = makeDaemon(farPort, DaemonForm::channelData);
  measure(*daemon, loads[0], 3s);
  const std::size_t before = residentWithChildren(daemon->pid());
  std::uint64_t relayed = 0;
  std::uint64_t losses = 0;
  while (relayed < options.endurance) {
    const Measurement part = measure(*daemon, loads[0], 5s);
    relayed += 2 * part.load.roundTrips;
    losses += part.load.losses;
  }
  const std::size_t after = residentWithChildren(daemon->pid());
  fmt::print("     {} datagrams relayed, {} lost; resident {} KiB before, {} KiB after\n", relayed,
             losses, before, after);
  // The two buffers of the debug log keep up to 256 KiB each. A leak of one octet per datagram
  // would be ten megabytes.
  verdict.check("growth of resident memory over them",
                static_cast<double>(after) - static_cast<double>(before), 512, " KiB");
}

void judge(const std::vector<Series>& all, Verdict& verdict) {
  const auto toFloor = [&](const std::string& name, unsigned outstanding,
                           double (*figure)(const Measurement&)) {
    return ratio(find(all, name, 200, outstanding), find(all, "floor", 200, outstanding), figure);
  };
  const std::string channelData = "zkturnd, ChannelData";
  const std::string indications = "zkturnd, indications";
  verdict.check("CPU per datagram, ChannelData, × floor",
                toFloor(channelData, 32, cpuMicrosecondsOf), 1.5, "");
  verdict.check("CPU per datagram, indications, × floor",
                toFloor(indications, 32, cpuMicrosecondsOf), 1.7, "");
  verdict.check("round trip at 1 outstanding, p50, ChannelData, × floor",
                toFloor(channelData, 1, p50Of), 1.5, "");
  for (const Series& series : all) {
    if (series.isProxy && series.payload == 200 && series.outstanding == 32) {
      verdict.check("CPU per datagram, ChannelData, against " + series.name,
                    find(all, channelData, 200, 32).cpuMicroseconds(), series.cpuMicroseconds(),
                    " µs");
    }
  }
}

bool run(const Options& options) {
  const FarSide farSide;
  const std::string machine = machineText();
  fmt::print("{}\n{} rounds of {} ms each, medians\n\n", machine, options.rounds,
             options.perRun.count());
  const std::vector<Series> all = compare(options, farSide.port());
  fmt::print("{}\n", table(all));
  if (!options.svg.empty()) {
    std::ofstream(options.svg) << chart(all, 200, 32, machine);
  }
  Verdict verdict;
  judge(all, verdict);
  compareMany(options, farSide.port(), verdict);
  compareFloods(options, farSide.port(), verdict);
  measureOpening(farSide.port(), verdict);
  if (options.endurance > 0) {
    measureEndurance(options, farSide.port(), verdict);
  }
  return verdict.allHold();
}

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& name = arguments[i];
    if (name == "--no-proxies") {
      options.withProxies = false;
      continue;
    }
    if (i + 1 == arguments.size()) {
      throw std::invalid_argument(name + " is not an option, or has no value");
    }
    const std::string& value = arguments[++i];
    if (name == "--rounds") {
      options.rounds = std::stoi(value);
    } else if (name == "--milliseconds") {
      options.perRun = std::chrono::milliseconds(std::stoi(value));
    } else if (name == "--endurance") {
      options.endurance = std::stoull(value);
    } else if (name == "--beside") {
      options.beside.push_back(value);
    } else if (name == "--svg") {
      options.svg = value;
    } else {
      throw std::invalid_argument(name + " is not an option");
    }
  }
  return options;
}

}  // namespace
}  // namespace zk::bench

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 2 && arguments[0] == "--floor") {
    zk::bench::runFloor(static_cast<std::uint16_t>(std::stoi(arguments[1])));
  }
  try {
    return zk::bench::run(zk::bench::parseOptions(arguments)) ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "zkturnd-bench: {}\n", error.what());
    return 2;
  }
}
