#include <array>
#include <stdexcept>

#include <poll.h>

#include "NetworkLab/NetworkLab.h"
#include "Relay/Call.h"
#include "Relay/Usage.h"
#include "Run/Rows.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using lab::NetworkLab;

constexpr std::size_t relaysAtOnce = 200;
constexpr std::chrono::milliseconds relaysDistance{100};
constexpr std::size_t octets = 200;
constexpr std::size_t burst = 500;
constexpr std::size_t burstOctets = 1200;
constexpr std::size_t crowd = 3000;

// The peer that programs name. It is never sent to: the far side sends back what it gets.
const Endpoint nobody = endpointAt("203.0.113.7", 3478);

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
      process_.emplace(std::vector<std::string>{
          "/proc/self/exe", "floor", Endpoint(proxyEndpoint().address, far.port()).text()});
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
  contestants.push_back({"zkturn run", all.sealed.process(), programSocket("sealed", nobody)});
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

}  // namespace

void compareDatagrams(Comparison& all, const Options& options, Verdict& verdict) {
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

namespace {

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

}  // namespace

void measureRelays(Comparison& all, const Options& /*options*/, Verdict& verdict) {
  all.far->proxy.setScript({.distance = relaysDistance});
  const Heard heard = hearAll("sealed", all.far->peer.endpoint(), relaysAtOnce);
  verdict.checkAtLeast(fmt::format("relays that open of {} at once", relaysAtOnce),
                       static_cast<double>(heard.answers), relaysAtOnce, "");
  verdict.check("... through a proxy 100 ms away, the last one after", heard.seconds, 5.0, " s");
}

void measureBurst(Comparison& all, const Options& /*options*/, Verdict& verdict) {
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
void measureCrowd(Comparison& all, const Options& /*options*/, Verdict& verdict) {
  const Heard heard = hearAll("sealed", all.far->peer.endpoint(), crowd);
  fmt::print("     {} sockets at once: {} heard an answer, {} a refusal\n", crowd, heard.answers,
             heard.refusals);
  verdict.check("... that heard nothing",
                static_cast<double>(crowd - heard.answers - heard.refusals), 0, "");
  const Heard next = hearAll("sealed", all.far->peer.endpoint(), 1);
  verdict.checkAtLeast("... and of one more that was answered", static_cast<double>(next.answers),
                       1, "");
  Verdict::tell("resident memory of zkturn behind them",
                static_cast<double>(all.sealed.process().residentKilobytes()) / 1024, " MiB");
}

}  // namespace zk::bench
