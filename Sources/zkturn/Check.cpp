// The order is that of a relay being opened, so that what fails here fails there. Everything goes
// to the proxy: STUN servers are addressed through it.

#include "zkturn/Check.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>

#include "Platform/Interfaces.h"
#include "Platform/Resolver.h"
#include "ZelkorSOCKS5/Association.h"
#include "ZelkorSOCKS5/BindingTransaction.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/STUN.h"
#include "zkturn/Advice.h"
#include "zkturn/Report.h"

namespace zk {
namespace {

using Clock = Deadline::clock;
using Milliseconds = std::chrono::duration<double, std::milli>;
using Stage = SOCKS5Control::Stage;
using Mark = Step::Mark;
using Answer = BindingTransaction::Answer;

constexpr Milliseconds answerLimit{1500};  // what a relay that is being opened gives a STUN server
constexpr Milliseconds shortestLimit{300};
constexpr Milliseconds pause{20};  // between probes: 50 a second are no flood
constexpr std::chrono::seconds lookupLimit{8};
constexpr unsigned tries = 3;  // before silence is believed

// Payloads, all multiples of 4: what WebRTC sends, what fits the usual links, and beyond.
constexpr std::size_t sizes[] = {576, 1000, 1200, 1280, 1352, 1400, 1452, 1472, 2048, 4096, 8192};
constexpr std::size_t sizeOfMedia = 1200;

constexpr const char* stepNames[] = {"name", "connection", "method", "login", "association"};

const char* nameOf(Stage stage) {
  return stepNames[static_cast<int>(stage)];
}

// What follows a stage: without a login, the association comes right behind the method.
Stage after(Stage stage, const std::string& found) {
  return stage == Stage::methodChosen && found == "no login"
             ? Stage::associated
             : static_cast<Stage>(static_cast<int>(stage) + 1);
}

class Checker {
 public:
  Checker(const ProxyOptions& proxy, const std::optional<std::string>& password,
          const CheckOptions& options, const Watcher& watcher)
      : proxy_(proxy), password_(password), options_(options), watcher_(watcher) {}

  Findings run() {
    const std::string proxy = proxy_.proxy.text();
    try {
      connect();
      findServers();
      findMapping();
      measureRoundTrips();
      findLargest();
      compareDestinations();
      waitIdle();
      findings_.carriesUDP = true;
      findings_.verdict = fmt::format("{} carries UDP: peers will see {}{}.", proxy,
                                      findings_.seenByPeers->text(), remark_);
    } catch (const Failure& failure) {
      findings_.verdict = fmt::format("{} {}: {}, got \"{}\"; {}.", proxy, failure.without,
                                      failure.asked, failure.came, failure.tryThis);
    }
    std::sort(findings_.roundTrips.begin(), findings_.roundTrips.end());
    return std::move(findings_);
  }

 private:
  void connect();
  void findServers();
  void findMapping();
  void measureRoundTrips();
  void findLargest();
  void compareDestinations();
  void waitIdle();

  // Absent when no answer came within `limit`. A request of more than 20 octets is padded.
  std::optional<Answer> ask(const Endpoint& server, Milliseconds limit, std::size_t size = 20);
  std::optional<Answer> askRepeatedly(const Endpoint& server, Milliseconds limit,
                                      std::size_t size = 20);
  // For a path whose round trips are known by now.
  Milliseconds limitNow() const;
  void step(Mark mark, std::string name, std::string detail);
  void remark(const std::string& text) { remark_ += "; " + text; }

  const ProxyOptions& proxy_;
  const std::optional<std::string>& password_;
  const CheckOptions& options_;
  const Watcher& watcher_;
  Findings findings_;
  std::string remark_;  // what the verdict adds
  Clock::time_point stepBegan_ = Clock::now();
  std::optional<Association> association_;
  std::vector<Endpoint> servers_;
};

void Checker::step(Mark mark, std::string name, std::string detail) {
  const auto now = Clock::now();
  findings_.steps.push_back(
      {mark, std::move(name), std::move(detail), Milliseconds(now - stepBegan_).count()});
  stepBegan_ = now;
  if (watcher_.onStep) {
    watcher_.onStep(findings_.steps.back());
  }
}

void Checker::connect() {
  const auto way = [](std::optional<unsigned> index) -> std::string {
    for (const NetworkInterface& interface : Interfaces().available()) {
      if (index == interface.index) {
        return "pinned to " + interface.name;
      }
    }
    return index ? "pinned" : "by the routes";
  };
  Stage stage = Stage::nameFound;  // the one that is under way
  const auto onStage = [&](const SOCKS5Control& control, Stage done, const std::string& found) {
    step(Mark::passed, nameOf(done),
         done == Stage::connected ? fmt::format("to {}, {}", found, way(control.pinnedInterface()))
         : done == Stage::associated ? "relay " + found
                                     : found);
    stage = done == Stage::associated ? done : after(done, found);
  };
  if (proxy_.viaDefault) {
    setenv("ZK_EGRESS_VIA_DEFAULT", "1", 1);  // what it means to the daemon
  }
  try {
    association_.emplace(
        Association::open({proxy_.proxy.host, proxy_.proxy.port, proxy_.user, password_},
                          {.connectTimeout = static_cast<double>(proxy_.timeoutSeconds)}, onStage));
    findings_.relay =
        fmt::format("{}:{}", association_->relay.relayHost, association_->relay.relayPort);
  } catch (const SOCKS5Error& error) {
    step(Mark::failed, nameOf(stage), answerIn(error));
    throw failureAt(stage, error, proxy_.proxy, proxy_.user.has_value());
  }
}

void Checker::findServers() {
  servers_ = proxy_.stunServers;
  if (!servers_.empty()) {
    return;
  }
  const Deadline deadline = Clock::now() + lookupLimit;
  for (const STUN::Server& server : STUN::defaultServers) {
    const Resolution found =
        resolveUDPv4(server.host, std::to_string(server.port), deadline, nullptr);
    if (!found.addresses.empty()) {
      const auto& address = reinterpret_cast<const sockaddr_in&>(found.addresses.front().address);
      servers_.push_back({ntohl(address.sin_addr.s_addr), server.port});
    }
  }
  if (servers_.empty()) {
    step(Mark::failed, "STUN servers", "no well-known one could be looked up");
    throw Failure{"may carry UDP or not", "looked up the well-known STUN servers", "no address",
                  "name one in numbers with --stun IP:PORT"};
  }
  // The first and the last are of two operators.
  servers_ = {servers_.front(), servers_.back()};
  step(Mark::passed, "STUN servers",
       fmt::format("{} and {}", servers_.front().text(), servers_.back().text()));
}

std::optional<Answer> Checker::ask(const Endpoint& server, Milliseconds limit, std::size_t size) {
  try {
    BindingTransaction transaction(association_->socket, association_->relay.relayAddress);
    transaction.send(server, size);
    return transaction.await(BindingTransaction::Until::answer,
                             Clock::now() + std::chrono::duration_cast<Clock::duration>(limit));
  } catch (const std::system_error&) {
    // The system refuses the datagram, for its size perhaps: it does not pass.
    return std::nullopt;
  }
}

std::optional<Answer> Checker::askRepeatedly(const Endpoint& server, Milliseconds limit,
                                             std::size_t size) {
  for (unsigned i = 0; i < tries; ++i) {
    if (auto reply = ask(server, limit, size)) {
      return reply;
    }
  }
  return std::nullopt;
}

Milliseconds Checker::limitNow() const {
  std::vector<double> trips = findings_.roundTrips;
  if (trips.empty()) {
    return answerLimit;
  }
  const auto slowest = Milliseconds(*std::max_element(trips.begin(), trips.end()));
  return std::clamp<Milliseconds>(4 * slowest, shortestLimit, answerLimit);
}

void Checker::findMapping() {
  std::string asked;
  for (std::size_t i = 0; i < servers_.size(); ++i) {
    const Endpoint& server = servers_[i];
    asked += (asked.empty() ? "" : " and ") + server.text();
    const auto reply = askRepeatedly(server, answerLimit);
    if (reply && reply->mapped) {
      findings_.seenByPeers = reply->mapped;
      std::rotate(servers_.begin(), servers_.begin() + static_cast<std::ptrdiff_t>(i),
                  servers_.end());
      step(Mark::passed, "STUN", "peers will see " + reply->mapped->text());
      return;
    }
  }
  const auto end = association_->control->takeEnd();
  const std::string came = end ? "the proxy ended its connection: " + *end : "no answer";
  step(Mark::failed, "STUN", came);
  throw Failure{
      "does not carry UDP",
      fmt::format("sent STUN requests to {} through its relay {}", asked, findings_.relay), came,
      end ? "ask its operator whether it allows UDP"
          : fmt::format("UDP to {} may be blocked on the way (ask its operator to open it, or try "
                        "--via-default), or the proxy may not carry it; another server can be "
                        "named with --stun",
                        association_->relay.relayAddress.ip())};
}

void Checker::measureRoundTrips() {
  for (unsigned i = 0; i < options_.count; ++i) {
    std::this_thread::sleep_for(pause);
    ++findings_.sent;
    if (const auto reply = ask(servers_.front(), answerLimit)) {
      findings_.roundTrips.push_back(Milliseconds(reply->roundTrip).count());
    }
    if (watcher_.onProbe) {
      watcher_.onProbe(findings_.sent, options_.count);
    }
  }
  std::vector<double>& trips = findings_.roundTrips;
  std::sort(trips.begin(), trips.end());
  const std::size_t lost = findings_.sent - trips.size();
  const std::string answered = fmt::format("{} of {} answered", trips.size(), findings_.sent);
  step(lost == 0 ? Mark::passed : Mark::noted, "round trips",
       trips.empty() ? answered
                     : fmt::format("{}, min/median/max {:.1f}/{:.1f}/{:.1f} ms", answered,
                                   trips.front(), trips[trips.size() / 2], trips.back()));
  if (lost > 0) {
    remark(fmt::format("{:.0f} % of the datagrams or their answers were lost",
                       100.0 * static_cast<double>(lost) / findings_.sent));
  }
}

void Checker::findLargest() {
  std::size_t failed = 0;
  for (const std::size_t size : sizes) {
    if (!askRepeatedly(servers_.front(), limitNow(), size)) {
      failed = size;
      break;
    }
    findings_.largestDatagram = size;
  }
  const bool isEnough = findings_.largestDatagram >= sizeOfMedia;
  step(isEnough ? Mark::passed : Mark::noted, "size",
       findings_.largestDatagram == 0
           ? fmt::format("not even {} octets pass, or the STUN server answers short requests only",
                         failed)
       : failed == 0 ? fmt::format("{} octets pass", findings_.largestDatagram)
                     : fmt::format("{} octets pass, {} do not", findings_.largestDatagram, failed));
  if (!isEnough) {
    remark(fmt::format("datagrams of {} octets, as WebRTC sends them, do not pass", sizeOfMedia));
  }
}

void Checker::compareDestinations() {
  if (servers_.size() < 2 || servers_.front() == servers_.back()) {
    return;
  }
  const auto reply = askRepeatedly(servers_.back(), limitNow());
  if (!reply || !reply->mapped) {
    step(Mark::noted, "ports", fmt::format("no answer from {}", servers_.back().text()));
    return;
  }
  const Endpoint& first = *findings_.seenByPeers;
  const Endpoint& second = *reply->mapped;
  findings_.isPortTheSame = first == second;
  if (!*findings_.isPortTheSame) {
    step(Mark::noted, "ports",
         fmt::format("the second destination sees {}: another one for each", second.text()));
    remark("a peer that is behind a proxy or a strict translator itself will not get through");
  } else if (first.port == association_->relay.relayPort) {
    step(Mark::passed, "ports", "two destinations see the same port, the relay's own");
  } else {
    step(Mark::passed, "ports",
         "two destinations see the same port: \"relayedPort\": \"mapped\" helps");
    remark("set \"relayedPort\": \"mapped\"");
  }
}

void Checker::waitIdle() {
  if (options_.idleSeconds == 0) {
    return;
  }
  std::this_thread::sleep_for(std::chrono::seconds(options_.idleSeconds));
  const bool isAnswered = askRepeatedly(servers_.front(), limitNow()).has_value();
  const auto end = association_->control->takeEnd();
  findings_.survivesIdle = isAnswered && !end;
  const std::string silence = fmt::format("{} s of silence", options_.idleSeconds);
  if (*findings_.survivesIdle) {
    step(Mark::passed, "idle", "the association survives " + silence);
    return;
  }
  step(Mark::noted, "idle",
       end ? fmt::format("the proxy ended its connection after {}: {}", silence, *end)
           : "no answer any more after " + silence);
  remark("it forgets an association after " + silence);
}

}  // namespace

int check(const ProxyOptions& proxy, const CheckOptions& options) {
  const std::optional<std::string> password = readPassword(proxy);
  Report report(proxy, options);
  const Watcher watcher = report.watcher();
  const Findings findings = Checker(proxy, password, options, watcher).run();
  report.conclude(findings);
  return findings.carriesUDP ? 0 : 1;
}

}  // namespace zk
