// Puts the daemon under load for some minutes, prints what it measured, and ends with status 1 when
// a bound was not kept.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/Load.h"
#include "Loopback/PrivateTmp.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/TURNClient.h"

namespace zk::soak {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t manyClients = 600;
constexpr std::size_t manyRounds = 10'000;
constexpr std::size_t stormPorts = 400;
// The daemon has room for 20,000 from strangers at once, and answers 5,000 a second.
constexpr std::size_t stormRequests = 50'000;
// Together they stay below what the daemon's socket buffer holds: what is lost is then the fault of
// a relay, not of the load.
constexpr std::size_t steadyClients = 4;
constexpr unsigned steadyWindow = 12;

// What freed memory the allocator may keep. A leak of 100 octets per datagram or of a kilobyte per
// round is several times that.
constexpr std::size_t keptKilobytes = 8 * 1024;
// A nonce is remembered for 300 seconds, and takes so much meanwhile.
constexpr std::size_t octetsPerNonce = 200;
constexpr auto nonceLifetime = 301s;

bool allKept = true;

void check(bool kept, const std::string& bound) {
  if (!kept) {
    fmt::print("  NOT KEPT: {}\n", bound);
    allKept = false;
  }
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// What many threads count together.
struct Tally {
  std::atomic<std::uint64_t> sent{0};      // towards the peer
  std::atomic<std::uint64_t> lost{0};      // of those, the ones that never came back
  std::atomic<std::uint64_t> rounds{0};    // clients that came and went
  std::atomic<std::uint64_t> failures{0};  // requests that were not answered with success
};

/// What the daemon holds.
struct Holdings {
  explicit Holdings(const DaemonProcess& daemon)
      : kilobytes(daemon.residentKilobytes()),
        descriptors(daemon.descriptorCount()),
        threads(daemon.threadCount()) {}
  std::size_t kilobytes;
  std::size_t descriptors;
  std::size_t threads;
};

/// The proxy, the STUN server, the peer, and a daemon that was started with room for 1024
/// descriptors only.
struct World {
  explicit World(const std::string& binary)
      : daemon({"/bin/bash", "-c", "ulimit -S -n 1024; exec \"$0\"", binary},
               {{"ZK_STUN_IPS", stun.target()}}),
        port(daemon.serve({.proxyPort = proxy.port()})) {}

  const STUNResponder stun;
  const SOCKS5Server proxy;
  const EchoPeer peer;
  DaemonProcess daemon;
  const std::uint16_t port;
};

void exchange(const CallLeg& leg, std::uint64_t count, unsigned window, Tally& tally) {
  const auto result =
      runLoad({leg}, {.payload = 1000, .outstanding = window, .count = count, .patience = 500ms});
  tally.sent += result.sent;
  tally.lost += result.losses();
}

/// One client's whole life: a port of its own, an allocation, some data, and the release.
void comeAndGo(const World& world, std::uint64_t datagrams, Tally& tally) {
  TURNClient client(world.port);
  client.setRetransmission(100ms, 40);
  if (!client.allocate().success()) {
    ++tally.failures;
    return;
  }
  exchange(CallLeg::indications(client, world.peer.endpoint()), datagrams, 1, tally);
  tally.failures += !client.refresh(0).success();
  ++tally.rounds;
}

/// Clients at full rate, and clients that come and go, for as long as this lives.
class FullLoad {
 public:
  FullLoad(const World& world, Tally& tally) {
    for (std::size_t i = 0; i < steadyClients; ++i) {
      threads_.emplace_back([this, &world, &tally, i] {
        TURNClient client(world.port);
        const bool isChannel = i % 2 == 0;
        const bool ready =
            client.allocate().success() &&
            (!isChannel || client.bindChannel(0x4000, world.peer.endpoint()).success());
        tally.failures += !ready;
        const CallLeg leg = isChannel ? CallLeg::onChannel(client, 0x4000)
                                      : CallLeg::indications(client, world.peer.endpoint());
        while (ready && !ending_) {
          exchange(leg, 200, steadyWindow, tally);
        }
        client.setTimeout(500ms);  // the daemon may be gone, which is the point
        client.refresh(0);
      });
    }
    threads_.emplace_back([this, &world, &tally] {
      while (!ending_) {
        comeAndGo(world, 5, tally);
        std::this_thread::sleep_for(20ms);
      }
    });
  }
  ~FullLoad() {
    ending_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  FullLoad(const FullLoad&) = delete;
  FullLoad& operator=(const FullLoad&) = delete;

 private:
  std::atomic<bool> ending_{false};
  std::vector<std::thread> threads_;
};

void report(const char* stage, const Holdings& held, const std::string& figures) {
  fmt::print("{:<22}{:>9} KiB {:>6} fds {:>5} threads   {}\n", stage, held.kilobytes,
             held.descriptors, held.threads, figures);
}

/// One world from its beginning to its end, stage by stage: after each of them what is held must be
/// what was held at the beginning.
class Trial {
 public:
  explicit Trial(const std::string& binary) : world_(binary) {
    Tally warmUp;
    comeAndGo(world_, 100, warmUp);
    beginning_ = settled();
    report("beginning", beginning_, "");
  }

  void serveMany() {
    Tally tally;
    const auto clients = newClients(manyClients);
    const auto start = Clock::now();
    for (const auto& client : clients) {
      tally.failures += !client->allocate().success();
    }
    const double opening = secondsSince(start);
    for (const auto& client : clients) {
      exchange(CallLeg::indications(*client, world_.peer.endpoint()), 10, 5, tally);
    }
    report("600 clients at once", Holdings(world_.daemon),
           fmt::format("{:.2f} ms per opening, {} datagrams, {} lost", opening * 1000 / manyClients,
                       tally.sent.load(), tally.lost.load()));
    for (const auto& client : clients) {
      tally.failures += !client->refresh(0).success();
    }
    nonces_ += manyClients;
    finish("... and released", "", tally);
    check(tally.lost == 0, "no datagram is lost");
  }

  void serveRounds() {
    Tally tally;
    const auto start = Clock::now();
    for (std::size_t i = 0; i < manyRounds; ++i) {
      comeAndGo(world_, 1, tally);
    }
    const double each = secondsSince(start) * 1000 / manyRounds;
    nonces_ += manyRounds;
    finish("10000 rounds", fmt::format("{:.2f} ms per round, {} lost", each, tally.lost.load()),
           tally);
    check(tally.rounds == manyRounds, "every round succeeds");
    check(tally.lost == 0, "no datagram is lost");
  }

  /// Allocate requests without credentials, as fast as they are answered. One that is dropped is
  /// sent again.
  void endureStorm() {
    constexpr std::size_t burst = 50;
    const auto clients = newClients(stormPorts);
    const Bytes request = clients[0]->makeRequest(TURNMethod::allocate).encode();
    std::size_t answered = 0;
    std::size_t again = 0;
    const auto start = Clock::now();
    for (std::size_t sent = 0; sent < stormRequests; sent += burst) {
      for (std::size_t i = sent; i < sent + burst; ++i) {
        clients[i % stormPorts]->send(request);
      }
      for (std::size_t i = sent; i < sent + burst; ++i) {
        TURNClient& client = *clients[i % stormPorts];
        std::size_t tries = 0;
        while (!client.receive(20ms) && ++tries < 50) {
          client.send(request);
        }
        again += tries;
        answered += tries < 50;
      }
    }
    nonces_ += stormRequests;
    lastStorm_ = Clock::now();
    finish("storm, 400 ports",
           fmt::format("{} requests in {:.1f} s, {} sent again", stormRequests, secondsSince(start),
                       again),
           {});
    check(answered == stormRequests, "every request is answered");
  }

  void endureFullRate(double minutes) {
    Tally tally;
    const auto start = Clock::now();
    const auto end = start + std::chrono::milliseconds(static_cast<int>(minutes * 60'000));
    {
      const FullLoad load(world_, tally);
      for (auto next = start; next < end;) {
        next = std::min(next + 1min, end);
        std::this_thread::sleep_until(next);
        report("full rate", Holdings(world_.daemon),
               fmt::format("{} datagrams each way, {} lost, {} clients came and went",
                           tally.sent.load(), tally.lost.load(), tally.rounds.load()));
      }
    }
    const double rate = static_cast<double>(tally.sent) / secondsSince(start);
    nonces_ += tally.rounds;
    finish("end", fmt::format("{:.0f} datagrams each way per second", rate), tally);
    check(tally.lost * 10'000 <= tally.sent, "at most one datagram in ten thousand is lost");
    check(static_cast<double>(tally.rounds) > minutes * 60, "clients come and go");
  }

  void end(const char* how, void (ChildProcess::*tell)()) {
    Tally tally;
    const FullLoad load(world_, tally);
    std::this_thread::sleep_for(1s);
    const auto start = Clock::now();
    (world_.daemon.*tell)();
    const auto status = world_.daemon.waitExit(10s);
    const double took = secondsSince(start);
    fmt::print("{} at full load: status {} after {:.0f} ms\n", how,
               status ? std::to_string(*status) : "none", took * 1000);
    check(tally.sent > 1000, "it was at full load");
    check(status == 0, "the exit status is 0");
    check(took < 1.0, "it ends within a second");
  }

 private:
  std::vector<std::unique_ptr<TURNClient>> newClients(std::size_t count) const {
    std::vector<std::unique_ptr<TURNClient>> clients(count);
    std::ranges::generate(clients, [&] { return std::make_unique<TURNClient>(world_.port); });
    return clients;
  }

  void finish(const char* stage, const std::string& figures, const Tally& tally) const {
    const Holdings now = settled();
    report(stage, now, figures);
    const bool forgotten = Clock::now() - lastStorm_ > nonceLifetime;
    const std::size_t more = keptKilobytes + (forgotten ? 0 : nonces_ * octetsPerNonce / 1024);
    check(tally.failures == 0, "every client gets and releases its relay");
    check(now.descriptors == beginning_.descriptors, "descriptors are those of the beginning");
    check(now.threads == beginning_.threads, "threads are those of the beginning");
    check(now.kilobytes <= beginning_.kilobytes + more,
          fmt::format("at most {} KiB more than at the beginning", more));
  }

  /// When it has stopped changing.
  Holdings settled() const {
    std::this_thread::sleep_for(500ms);
    return Holdings(world_.daemon);
  }

  World world_;
  Holdings beginning_{world_.daemon};
  std::size_t nonces_ = 0;
  Clock::time_point lastStorm_ = Clock::now();
};

int run(double minutes) {
  const std::string binary = pathByDescriptor(programBeside("zkturnd"));
  const PrivateTmp logs(512 * 1024);
  if (!logs.mounted()) {
    fmt::print("without root: the log lines go to the machine's /tmp\n");
  }
  Trial trial(binary);
  trial.serveMany();
  trial.serveRounds();
  trial.endureStorm();
  trial.endureFullRate(minutes);
  trial.end("end of input", &ChildProcess::closeInput);
  Trial(binary).end("SIGTERM", &ChildProcess::terminate);
  fmt::print("{}\n", allKept ? "every bound was kept" : "a bound was NOT kept");
  return allKept ? 0 : 1;
}

}  // namespace
}  // namespace zk::soak

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  CLI::App app("Puts the daemon under load.", "zkturnd-soak");
  double minutes = 0;
  app.add_option("MINUTES", minutes, "How long at full rate")
      ->required()
      ->check(CLI::Range(0.1, 1440.0));
  try {
    app.parse(argc, argv);
    return zk::soak::run(minutes);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::exception& error) {
    fmt::print(stderr, "zkturnd-soak: {}\n", error.what());
    return 1;
  }
}
