// Measures what `zkturn run` costs the programs that it seals: beside the same programs with a
// proxy setting of their own, beside a bare gate, and beside one receive and one send for
// datagrams.

#include <algorithm>
#include <array>
#include <cstdio>
#include <numeric>

#include <CLI/CLI.hpp>
#include <poll.h>
#include <unistd.h>

#include "NetworkLab/NetworkLab.h"
#include "Platform/Clock.h"
#include "Relay/Call.h"
#include "Relay/Floor.h"
#include "Relay/Report.h"
#include "Relay/Usage.h"
#include "Run/Gate.h"
#include "Run/Lab.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using lab::NetworkLab;

constexpr double gibibyte = 1 << 30;
constexpr std::size_t pageSize = 1024;
constexpr unsigned pages = 1000;
constexpr std::size_t quietConnections = 1000;
constexpr std::size_t relaysAtOnce = 200;
constexpr std::chrono::milliseconds relaysDistance{100};
constexpr std::size_t octets = 200;
constexpr std::size_t burst = 500;
constexpr std::size_t burstOctets = 1200;
constexpr std::size_t crowd = 3000;

// The peer that programs name. It is never sent to: the far side sends back what it gets.
const Endpoint nobody = endpointAt("203.0.113.7", 3478);
const Endpoint proxy = endpointAt(Addresses::proxy, Addresses::proxyPort);

struct Options {
  int rounds = 7;
  unsigned milliseconds = 200;
  std::string only;
};

double secondsSince(std::uint64_t start) {
  return static_cast<double>(monotonicNanoseconds() - start) / 1e9;
}

/// Who is compared, and the far host that they all reach.
struct Comparison {
  Comparison() {
    NetworkLab::in("far", [this] { far = std::make_unique<FarHost>(); });
    sealed.emplace(Way::sealed());
    gate.emplace(Way::bareGate());
  }

  std::unique_ptr<FarHost> far;
  Way direct = Way::direct();
  std::optional<Way> sealed;
  std::optional<Way> gate;
};

// ---- TCP ---------------------------------------------------------------------------------------

struct Download {
  double speed;  // octets per second
  double cpu;    // of what carries, milliseconds per GiB
};

Download download(Way& way, const char* options) {
  const auto before = way.process().cpuTime();
  const std::string line = way.ask(fmt::format(
      "curl -s {} -o /dev/null --max-time 50 -w '%{{size_download}} %{{speed_download}}\\n' "
      "http://{}/{:.0f}",
      options, onInternet(Addresses::pagesPort).text(), gibibyte));
  const std::chrono::duration<double, std::milli> used = way.process().cpuTime() - before;
  double size = 0;
  double speed = 0;
  if (std::sscanf(line.c_str(), "%lf %lf", &size, &speed) != 2 || size != gibibyte) {
    throw std::runtime_error("a download was cut short in " + way.host() + ": " + line);
  }
  return {speed, used.count()};
}

void compareDownloads(Comparison& all, int rounds, Verdict& verdict) {
  const std::string own = fmt::format("--socks5 {}", proxy.text());
  std::vector<double> speed, direct, gateSpeed, times, cpu, bare;
  for (int round = 0; round < rounds; ++round) {
    const Download outside = download(all.direct, own.c_str());
    const Download sealed = download(*all.sealed, "");
    const Download gate = download(*all.gate, "");
    speed.push_back(sealed.speed / outside.speed);
    gateSpeed.push_back(gate.speed / outside.speed);
    direct.push_back(outside.speed / gibibyte);
    times.push_back(sealed.cpu / gate.cpu);
    cpu.push_back(sealed.cpu);
    bare.push_back(gate.cpu);
  }
  Verdict::tell("a download by curl's own SOCKS", median(direct), " GiB/s");
  verdict.checkAtLeast("a download of 1 GiB in a seal, × that", median(speed), 0.9, "");
  Verdict::tell("... behind the bare gate, × that", median(gateSpeed), "");
  Verdict::tell("CPU of the bare gate per GiB", median(bare), " ms");
  Verdict::tell("CPU of zkturn per GiB", median(cpu), " ms");
  verdict.check("CPU of zkturn per GiB, × the bare gate", median(times), 1.1, "");
}

/// By one program, each by a connection of its own.
double pagesPerSecond(Way& way, const std::string& options) {
  const std::uint64_t start = monotonicNanoseconds();
  const std::string line = way.ask(fmt::format(
      "curl -s {} -o /dev/null -w '%{{size_download}}\\n' 'http://{}/{}?[1-{}]' | sort | uniq -c",
      options, onInternet(Addresses::pagesPort).text(), pageSize, pages));
  const double seconds = secondsSince(start);
  unsigned whole = 0;
  std::size_t size = 0;
  if (std::sscanf(line.c_str(), "%u %zu", &whole, &size) != 2 || whole != pages ||
      size != pageSize) {
    throw std::runtime_error("pages were cut short: " + line);
  }
  return pages / seconds;
}

void comparePages(Comparison& all, const Options& options, Verdict& verdict) {
  const std::string own = fmt::format("--socks5 {}", proxy.text());
  std::vector<double> outside, ratios;
  for (int round = 0; round < options.rounds; ++round) {
    outside.push_back(pagesPerSecond(all.direct, own));
    ratios.push_back(pagesPerSecond(*all.sealed, "") / outside.back());
  }
  Verdict::tell("small pages one after the other, by curl's own SOCKS", median(outside), "/s");
  verdict.checkAtLeast("small pages one after the other in a seal, × that", median(ratios), 0.8,
                       "");
}

/// Each has said something before it is quiet.
void measureQuiet(const Comparison& all, Verdict& verdict) {
  std::vector<KitSocket> connections;
  NetworkLab::in(all.sealed->host(), [&] {
    for (std::size_t i = 0; i < quietConnections; ++i) {
      connections.push_back(KitSocket::connectedTCP(onInternet(Addresses::quietPort)));
      connections.back().send(bytesOf("hello"));
    }
  });
  std::this_thread::sleep_for(500ms);
  verdict.check(
      fmt::format("resident memory of zkturn with {} quiet connections", quietConnections),
      static_cast<double>(all.sealed->process().residentKilobytes()) / 1024, 20, " MiB");
}

// ---- UDP ---------------------------------------------------------------------------------------

KitSocket programSocket(const std::string& host, const Endpoint& to) {
  KitSocket socket;
  NetworkLab::in(host, [&] {
    socket = KitSocket::boundUDP("0.0.0.0");
    socket.connectTo(to);
  });
  return socket;
}

/// A socket of a program, and what carries its datagrams. They begin as those of RTP do (RFC 3550),
/// which nothing takes for QUIC.
struct Contestant {
  std::string name;
  const ChildProcess& process;
  KitSocket socket;
  std::vector<CallLeg> legs{
      {socket.get(), 1, [](ByteView payload) { return concatenated(Bytes{0x80}, payload); }}};
};

class Floor {
 public:
  explicit Floor(const FarSide& far) {
    NetworkLab::in("home", [&] {
      process_.emplace(std::vector<std::string>{"/proc/self/exe", "floor",
                                                Endpoint(proxy.address, far.port()).text()});
    });
    port_ = static_cast<std::uint16_t>(std::stoi(process_->readLine(5s).value()));
  }
  Contestant contestant() const {
    return {"floor", *process_, programSocket("home", localEndpoint(port_))};
  }

 private:
  std::optional<ChildProcess> process_;
  std::uint16_t port_ = 0;
};

std::vector<Contestant> contestantsOf(const Comparison& all, const Floor& floor) {
  std::vector<Contestant> contestants;
  contestants.push_back(floor.contestant());
  contestants.push_back({"zkturn run", all.sealed->process(), programSocket("sealed", nobody)});
  contestants.push_back({"bare loop", all.gate->process(), programSocket("gate", nobody)});
  return contestants;
}

template <typename Load>
std::vector<Series> compare(const std::vector<Contestant>& contestants, LoadPlan plan, int rounds,
                            const Load& load) {
  std::vector<Series> series;
  for (const Contestant& each : contestants) {
    series.push_back({each.name, false, octets, plan.outstanding, {}});
    runLoad(each.legs, {.payload = octets, .duration = 100ms});  // warm
  }
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < contestants.size(); ++i) {
      series[i].rounds.push_back(measured(
          contestants[i].process, [&] { return load(contestants[i].legs); }, Family::alone));
      if (series[i].rounds.back().roundTrips == 0) {
        throw std::runtime_error("nothing came back to " + contestants[i].name);
      }
    }
  }
  return series;
}

void compareDatagrams(const Comparison& all, const Options& options, Verdict& verdict) {
  all.far->relayBy(all.far->near);
  const Floor floor(all.far->near);
  const auto contestants = contestantsOf(all, floor);
  const struct {
    unsigned outstanding;
    double bound;
  } loads[] = {{1, 1.1}, {8, 1.0}, {32, 0.85}};
  std::vector<Series> table;
  for (const auto& [outstanding, bound] : loads) {
    const LoadPlan plan{.payload = octets - 1,
                        .outstanding = outstanding,
                        .duration = std::chrono::milliseconds(options.milliseconds)};
    const auto series = compare(contestants, plan, 2 * options.rounds,
                                [&](const auto& legs) { return runLoad(legs, plan); });
    verdict.check(fmt::format("CPU per datagram at {} outstanding, × floor", outstanding),
                  series[1].ratioTo(series[0], &Measurement::cpuMicroseconds), bound, "");
    table.insert(table.end(), series.begin(), series.end());
  }
  fmt::print("\n{}\n", bench::table(table));
}

void compareCalls(Comparison& all, const Options& options, Verdict& verdict) {
  all.far->relayBy(all.far->later);
  all.gate.emplace(Way::bareGate());  // has one association, from its beginning
  const Floor floor(all.far->later);
  const auto calls = compare(contestantsOf(all, floor), {}, (options.rounds + 1) / 2,
                             [](const auto& legs) { return runCall(legs[0], callDuration); });
  fmt::print("{}\n", callTable(calls));
  verdict.check("CPU per second of a call, × floor",
                calls[1].ratioTo(calls[0], &Measurement::cpuMilliseconds), 1.25, "");
  verdict.check("datagrams of these calls that were lost", static_cast<double>(calls[1].losses()),
                0, "");
}

/// What programs hear, each on a socket of its own that has sent one datagram.
struct Heard {
  std::size_t answers = 0;
  std::size_t refusals = 0;
  double seconds = 0;  // until the last one
};

Heard hearAll(const std::string& host, const Endpoint& peer, std::size_t count) {
  std::vector<KitSocket> sockets;
  NetworkLab::in(host, [&] {
    for (std::size_t i = 0; i < count; ++i) {
      sockets.push_back(KitSocket::boundUDP("0.0.0.0"));
      sockets.back().connectTo(peer);
    }
  });
  Heard heard;
  const std::uint64_t start = monotonicNanoseconds();
  std::vector<pollfd> waiting;
  for (const KitSocket& socket : sockets) {
    socket.send(bytesOf("hello"));
    waiting.push_back({socket.get(), POLLIN, 0});
  }
  while (!waiting.empty() && poll(waiting.data(), waiting.size(), 8000) > 0) {
    std::erase_if(waiting, [&](const pollfd& each) {
      char octet = 0;
      if (each.revents != 0) {
        ++(recv(each.fd, &octet, 1, MSG_DONTWAIT) > 0 ? heard.answers : heard.refusals);
      }
      return each.revents != 0;
    });
    heard.seconds = secondsSince(start);
  }
  return heard;
}

void measureRelays(const Comparison& all, Verdict& verdict) {
  all.far->proxy.setScript({.distance = relaysDistance});
  const Heard heard = hearAll("sealed", all.far->peer.endpoint(), relaysAtOnce);
  verdict.checkAtLeast(fmt::format("relays that open of {} at once", relaysAtOnce),
                       static_cast<double>(heard.answers), relaysAtOnce, "");
  verdict.check("... through a proxy 100 ms away, the last one after", heard.seconds, 5.0, " s");
}

void measureBurst(const Comparison& all, Verdict& verdict) {
  all.far->proxy.setScript({});
  EchoPeer& peer = all.far->peer;
  const KitSocket program = programSocket("sealed", peer.endpoint());
  const Bytes datagram(burstOctets);
  const auto comes = [&] {
    std::array<std::uint8_t, 2048> buffer;
    return waitReadable(program.get(), 500ms) && program.receive(buffer);
  };
  program.send(datagram);
  if (!comes()) {
    throw std::runtime_error("no relay for the burst");
  }
  peer.setEcho(false);
  std::size_t arrived = peer.received();
  for (std::size_t i = 0; i < burst; ++i) {
    program.send(datagram);
  }
  std::this_thread::sleep_for(500ms);
  arrived = peer.received() - arrived;
  verdict.check(fmt::format("lost of {} datagrams of {} octets at once, out", burst, burstOctets),
                static_cast<double>(burst - arrived), 0, "");
  for (std::size_t i = 0; i < burst; ++i) {
    peer.send(peer.lastSource().value(), datagram);
  }
  std::size_t back = 0;
  while (comes()) {
    ++back;
  }
  verdict.check(fmt::format("lost of {} datagrams of {} octets at once, in", burst, burstOctets),
                static_cast<double>(burst - back), 0, "");
  peer.setEcho(true);
}

/// More than there may be relays: each hears an answer or a refusal, and one that comes afterwards
/// is served.
void measureCrowd(const Comparison& all, Verdict& verdict) {
  const Heard heard = hearAll("sealed", all.far->peer.endpoint(), crowd);
  fmt::print("     {} sockets at once: {} heard an answer, {} a refusal\n", crowd, heard.answers,
             heard.refusals);
  verdict.check("... that heard nothing",
                static_cast<double>(crowd - heard.answers - heard.refusals), 0, "");
  const Heard next = hearAll("sealed", all.far->peer.endpoint(), 1);
  verdict.checkAtLeast("... and of one more that was answered", static_cast<double>(next.answers),
                       1, "");
  Verdict::tell("resident memory of zkturn behind them",
                static_cast<double>(all.sealed->process().residentKilobytes()) / 1024, " MiB");
}

bool run(const Options& options) {
  fmt::print("{}\n{} rounds, medians; zkturn runs as nobody\n\n", machineText(), options.rounds);
  Comparison all;
  Verdict verdict;
  const std::pair<const char*, std::function<void()>> parts[] = {
      {"downloads", [&] { compareDownloads(all, options.rounds, verdict); }},
      {"pages", [&] { comparePages(all, options, verdict); }},
      {"quiet", [&] { measureQuiet(all, verdict); }},
      {"datagrams", [&] { compareDatagrams(all, options, verdict); }},
      {"calls", [&] { compareCalls(all, options, verdict); }},
      {"relays", [&] { measureRelays(all, verdict); }},
      {"bursts", [&] { measureBurst(all, verdict); }},
      {"crowd", [&] { measureCrowd(all, verdict); }}};
  for (const auto& [name, measure] : parts) {
    if (options.only.empty() || options.only == name) {
      measure();
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
    runGate(proxy, onInternet(Addresses::pagesPort));
  }
  if (floor->parsed()) {
    const HostPort to = parseHostPort(far).value();
    runFloor(endpointAt(to.host, to.port));
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
