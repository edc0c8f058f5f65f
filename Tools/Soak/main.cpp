// Puts the daemon under load for some minutes, prints what it measured, and ends with status 1 when
// a bound was not kept.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <vector>

#include <fmt/format.h>

#include "Bench.h"
#include "Load.h"

namespace zk::soak {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t manyClients = 600;
constexpr std::size_t manyRounds = 10'000;
constexpr std::size_t stormPorts = 400;
constexpr std::size_t stormRequests = 200'000;

// What freed memory the allocator may keep. A leak of 100 octets per datagram or of a kilobyte per
// round is several times that.
constexpr std::size_t keptKilobytes = 8 * 1024;
// A nonce is remembered for 300 seconds, and takes so much meanwhile.
constexpr std::size_t octetsPerNonce = 200;
constexpr auto nonceLifetime = std::chrono::seconds(301);

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

void report(const char* stage, const Holdings& held, const std::string& figures) {
  fmt::print("{:<22}{:>9} KiB {:>6} fds {:>5} threads   {}\n", stage, held.kilobytes,
             held.descriptors, held.threads, figures);
  std::fflush(stdout);
}

void checkReturned(const Holdings& now, const Holdings& then, std::size_t moreKilobytes) {
  check(now.descriptors == then.descriptors, "descriptors are those of the beginning");
  check(now.threads == then.threads, "threads are those of the beginning");
  check(now.kilobytes <= then.kilobytes + keptKilobytes + moreKilobytes,
        fmt::format("at most {} KiB more than at the beginning", keptKilobytes + moreKilobytes));
}

Holdings serveMany(Bench& bench, Tally& tally) {
  std::vector<std::unique_ptr<TURNClient>> clients;
  const auto start = Clock::now();
  for (std::size_t i = 0; i < manyClients; ++i) {
    clients.push_back(std::make_unique<TURNClient>(bench.port()));
    tally.failures += !clients.back()->allocate().success();
  }
  const double opening = secondsSince(start);
  for (const auto& client : clients) {
    exchange(*client, bench.peer(), 0, 10, 5, tally);
  }
  report("600 clients at once", bench.holdings(),
         fmt::format("{:.2f} ms per opening, {} datagrams, {} lost", opening * 1000 / manyClients,
                     tally.sent.load(), tally.lost.load()));
  for (const auto& client : clients) {
    tally.failures += !client->refresh(0).success();
  }
  return bench.settledHoldings();
}

void checkEnd(Bench& bench, const char* how, void (*end)(loopback::DaemonProcess&)) {
  Tally ignored;
  FullLoad load(bench.port(), bench.peer(), ignored);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const auto start = Clock::now();
  end(bench.daemon());
  const auto status = bench.daemon().waitExit(std::chrono::seconds(10));
  const double took = secondsSince(start);
  fmt::print("{} at full load: status {} after {:.0f} ms\n", how,
             status ? std::to_string(*status) : "none", took * 1000);
  check(ignored.sent > 1000, "it was at full load");
  check(status == 0, "the exit status is 0");
  check(took < 1.0, "it ends within a second");
}

int run(int minutes) {
  LogKeeper logs;
  if (!logs.isPrivate()) {
    fmt::print("without root: some gigabytes of log lines go to /tmp\n");
  }
  Bench bench;
  logs.begin();
  std::size_t nonces = 0;
  auto lastStorm = Clock::now();
  const auto memoryOfNonces = [&] {
    return Clock::now() - lastStorm > nonceLifetime ? 0 : nonces * octetsPerNonce / 1024;
  };

  Tally warmUp;
  comeAndGo(bench.port(), bench.peer(), 100, warmUp);
  const Holdings beginning = bench.settledHoldings();
  report("beginning", beginning, "");

  Tally many;
  const Holdings afterMany = serveMany(bench, many);
  nonces += manyClients;
  report("... and released", afterMany, "");
  check(many.failures == 0, "every client gets and releases its relay");
  check(many.lost == 0, "no datagram is lost");
  checkReturned(afterMany, beginning, memoryOfNonces());

  Tally rounds;
  auto start = Clock::now();
  for (std::size_t i = 0; i < manyRounds; ++i) {
    comeAndGo(bench.port(), bench.peer(), 1, rounds);
  }
  nonces += manyRounds;
  const Holdings afterRounds = bench.settledHoldings();
  report("10000 rounds", afterRounds,
         fmt::format("{:.2f} ms per round, {} lost", secondsSince(start) * 1000 / manyRounds,
                     rounds.lost.load()));
  check(rounds.rounds == manyRounds && rounds.failures == 0, "every round succeeds");
  check(rounds.lost == 0, "no datagram is lost");
  checkReturned(afterRounds, beginning, memoryOfNonces());

  start = Clock::now();
  const std::size_t answered = storm(bench.port(), stormPorts, stormRequests);
  nonces += stormRequests;
  lastStorm = Clock::now();
  const Holdings afterStorm = bench.settledHoldings();
  report("storm, 400 ports", afterStorm,
         fmt::format("{} requests, {:.0f} per second, {} unanswered", stormRequests,
                     static_cast<double>(stormRequests) / secondsSince(start),
                     stormRequests - answered));
  check(answered == stormRequests, "every request is answered");
  checkReturned(afterStorm, beginning, memoryOfNonces());

  Tally full;
  start = Clock::now();
  Holdings during;
  {
    FullLoad load(bench.port(), bench.peer(), full);
    for (int minute = 1; minute <= minutes; ++minute) {
      std::this_thread::sleep_until(start + std::chrono::minutes(minute));
      during = bench.holdings();
      report("full rate", during,
             fmt::format("{} datagrams each way, {} lost, {} clients came and went",
                         full.sent.load(), full.lost.load(), full.rounds.load()));
    }
  }
  const double took = secondsSince(start);
  nonces += full.rounds;
  const Holdings end = bench.settledHoldings();
  report(
      "end", end,
      fmt::format("{:.0f} datagrams each way per second", static_cast<double>(full.sent) / took));
  check(full.failures == 0, "every client gets and releases its relay");
  check(full.lost * 10'000 <= full.sent, "at most one datagram in ten thousand is lost");
  check(full.rounds > static_cast<std::uint64_t>(minutes) * 60, "clients come and go");
  checkReturned(end, beginning, memoryOfNonces());

  checkEnd(bench, "end of input", [](loopback::DaemonProcess& daemon) { daemon.closeInput(); });
  Bench second;
  checkEnd(second, "SIGTERM", [](loopback::DaemonProcess& daemon) { daemon.terminate(); });
  fmt::print("{}\n", allKept ? "every bound was kept" : "a bound was NOT kept");
  return allKept ? 0 : 1;
}

}  // namespace
}  // namespace zk::soak

int main(int argc, char** argv) {
  const int minutes = argc == 2 ? std::atoi(argv[1]) : 0;
  if (minutes < 1) {
    fmt::print(stderr, "usage: zkturnd-soak MINUTES\n");
    return 2;
  }
  try {
    return zk::soak::run(minutes);
  } catch (const std::exception& error) {
    fmt::print(stderr, "zkturnd-soak: {}\n", error.what());
    return 1;
  }
}
