#include <array>
#include <cstdio>
#include <stdexcept>

#include "NetworkLab/NetworkLab.h"
#include "Run/Rows.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using lab::NetworkLab;

constexpr double gibibyte = 1 << 30;
constexpr std::size_t pageSize = 1024;
constexpr auto distance = 20ms;  // of a proxy that is far away
constexpr std::size_t quietConnections = 1000;

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

}  // namespace

void compareDownloads(Comparison& all, const Options& options, Verdict& verdict) {
  const std::string own = fmt::format("--socks5 {}", proxyEndpoint().text());
  std::vector<double> speed, direct, gateSpeed, times, cpu, bare;
  for (int round = 0; round < options.rounds; ++round) {
    const Download outside = download(all.direct, own.c_str());
    const Download sealed = download(all.sealed, "");
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

namespace {

/// By one program, each by a connection of its own.
double pagesPerSecond(Way& way, unsigned pages, const std::string& options) {
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

}  // namespace

void comparePages(Comparison& all, const Options& options, Verdict& verdict) {
  const std::string own = fmt::format("--socks5 {}", proxyEndpoint().text());
  const auto compare = [&](const std::string& what, unsigned pages, double atLeast) {
    std::vector<double> outside, ratios;
    for (int round = 0; round < options.rounds; ++round) {
      outside.push_back(pagesPerSecond(all.direct, pages, own));
      ratios.push_back(pagesPerSecond(all.sealed, pages, "") / outside.back());
    }
    Verdict::tell(what + ", by curl's own SOCKS", median(outside), "/s");
    verdict.checkAtLeast("... in a seal, × that", median(ratios), atLeast, "");
  };
  compare("small pages one after the other", 1000, 0.8);
  // Two answers of the proxy's before the page, or one where the first has come ahead. What it
  // relays is not delayed.
  SOCKS5Script script;
  script.distance = distance;
  all.far->proxy.setScript(script);
  compare(fmt::format("the same through a proxy {} ms away", distance.count()), 10, 1.4);
  all.far->proxy.setScript({});
}

/// Each has said something before it is quiet.
void measureQuiet(Comparison& all, const Options& /*options*/, Verdict& verdict) {
  std::vector<KitSocket> connections;
  NetworkLab::in(all.sealed.host(), [&] {
    for (std::size_t i = 0; i < quietConnections; ++i) {
      connections.push_back(KitSocket::connectedTCP(onInternet(Addresses::quietPort)));
      connections.back().send(bytesOf("hello"));
    }
  });
  std::this_thread::sleep_for(500ms);
  verdict.check(
      fmt::format("resident memory of zkturn with {} quiet connections", quietConnections),
      static_cast<double>(all.sealed.process().residentKilobytes()) / 1024, 20, " MiB");
}

}  // namespace zk::bench
