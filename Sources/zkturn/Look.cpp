#include "zkturn/Look.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "Platform/Interfaces.h"
#include "Platform/Resolver.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {
namespace {

using Clock = SteadyClock;
using Milliseconds = Look::Milliseconds;
using Stage = SOCKS5Control::Stage;
using Mark = Step::Mark;

constexpr Milliseconds answerLimit{1500};  // what a relay that is being opened gives a STUN server
constexpr unsigned rounds = 3;             // before silence is believed
constexpr std::chrono::seconds lookupLimit{8};

constexpr const char* stepNames[] = {"name", "connection", "method", "login", "association"};

// What follows a stage: without a login, the association comes right behind the method.
Stage next(Stage stage, const std::string& found) {
  return stage == Stage::associated                            ? stage
         : stage == Stage::methodChosen && found == "no login" ? Stage::associated
                                                               : Stage(static_cast<int>(stage) + 1);
}

std::string wayOf(std::optional<unsigned> index) {
  for (const NetworkInterface& interface : Interfaces().available()) {
    if (index == interface.index) {
      return "pinned to " + interface.name;
    }
  }
  return index ? "pinned" : "by the routes";
}

}  // namespace

Look::Look(const ProxyOptions& options, const std::optional<std::string>& password, OnStep onStep,
           bool asksResolver)
    : options_(options),
      password_(password),
      onStep_(std::move(onStep)),
      asksResolver_(asksResolver) {}

void Look::step(Mark mark, std::string name, std::string detail, std::string code) {
  const auto now = Clock::now();
  findings_.steps.push_back({mark, std::move(name), std::move(detail), std::move(code),
                             Milliseconds(now - stepBegan_).count()});
  stepBegan_ = now;
  waited_ = {};
  limit_->restart();
  if (onStep_) {
    onStep_(findings_.steps.back());
  }
}

void Look::findMapping() {
  const double patience = options_.timeoutSeconds;
  auto [first, second] = openingAttempts();
  first.connectTimeout = std::min(first.connectTimeout, patience);
  second.connectTimeout = patience;
  try {
    tryOnce(first);
  } catch (const Failure& failure) {
    // The second attempt is for what may turn out otherwise: whoever was slow has more time, and
    // what was pinned follows the routes. What the proxy has refused it refuses again.
    const bool wasHurried = failure.isTimeout && second.connectTimeout > first.connectTimeout;
    const bool wasPinned = failure.isSilence && association_->interface;
    if (!wasHurried && !wasPinned) {
      throw;
    }
    step(Mark::noted, "once more",
         wasPinned ? "datagrams follow the routes now" : "with more time");
    tryOnce(second);
    if (wasPinned) {
      remark("datagrams do not pass by the physical interface, and follow the routes");
    }
  }
}

void Look::tryOnce(OpeningAttempt how) {
  association_.reset();
  limit_.emplace(std::chrono::seconds(options_.timeoutSeconds));
  how.stop = limit_->signal();
  how.controlViaDefault = options_.viaDefault;
  how.failsWhenClosed = true;
  Stage stage = Stage::nameFound;  // the one that is under way
  bool hasLoggedIn = false;
  try {
    association_ = Association::open(
        {options_.proxy.host, options_.proxy.port, options_.user, password_}, how,
        [&](const SOCKS5Control& control, Stage done, const std::string& found) {
          step(Mark::passed, stepNames[static_cast<int>(done)],
               done == Stage::connected
                   ? fmt::format("to {}, {}", found, wayOf(control.pinnedInterface()))
               : done == Stage::associated ? "relay " + found
                                           : found);
          hasLoggedIn = hasLoggedIn || done == Stage::loggedIn;
          stage = next(done, found);
        });
  } catch (const SOCKS5Error& error) {
    Failure failure = failureAt(stage, error, options_.proxy, options_.user.has_value());
    step(Mark::failed, stepNames[static_cast<int>(stage)], failure.came, failure.code);
    throw failure;
  } catch (const std::system_error& error) {
    step(Mark::failed, stepNames[static_cast<int>(stage)], error.code().message());
    throw Failure{Outcome::notReached, "cannot be reached", "asked this machine for the way to it",
                  error.code().message(), "see what this machine is short of, and try again"};
  }
  limit_->finish();
  findings_.relay =
      fmt::format("{}:{}", association_->relay.relayHost, association_->relay.relayPort);
  if (options_.user && !hasLoggedIn) {
    remark("it asks for no login, so that --user is not needed");
  }
  if (servers_.empty()) {
    findServers();
  }
  askServers();
}

// As a relay does it: by the system's resolver, unless somebody has named others.
void Look::findServers() {
  for (const Endpoint& server : options_.stunServers) {
    servers_.push_back({server.ip(), server.port});
  }
  if (!servers_.empty() || !asksResolver_) {
    return;
  }
  const Deadline deadline = std::min(Clock::now() + lookupLimit, stepEnd());
  for (const STUN::Server& server : STUN::defaultServers) {
    const Resolution found =
        resolveUDPv4(server.host, std::to_string(server.port), deadline, limit_->signal());
    if (!found.addresses.empty()) {
      const auto& address = reinterpret_cast<const sockaddr_in&>(found.addresses.front().address);
      servers_.push_back({Endpoint::of(address).ip(), server.port});
    }
  }
  if (servers_.size() > 2) {
    servers_ = {servers_.front(), servers_.back()};  // of two operators
  }
  step(servers_.empty() ? Mark::noted : Mark::passed, "STUN servers",
       servers_.empty() ? "no well-known one could be looked up" : listOf(servers_));
}

void Look::askServers() {
  if (askAny(servers_)) {
    return;
  }
  // Those may be dead themselves. Others are asked by name, which the proxy looks up.
  if (!servers_.empty()) {
    step(Mark::noted, "STUN", fmt::format("no answer from {}", listOf(servers_)));
  }
  std::vector<HostPort> others;
  for (const STUN::Server& server : STUN::defaultServers) {
    others.push_back({server.host, server.port});
  }
  const std::vector<HostPort> silent = std::exchange(servers_, {});
  const auto end = takeEnd();
  if (!end && askAny(others)) {
    if (!silent.empty()) {
      remark(fmt::format("the STUN server {} is silent", listOf(silent)));
    }
    return;
  }
  servers_ = silent;
  const auto ended = end ? end : takeEnd();
  step(Mark::failed, "STUN",
       ended ? "the proxy ended its connection: " + *ended : "no answer from others either");
  throw ended ? failureOfEnd(findings_.relay, *ended) : failureOfSilence(findings_.relay, silent);
}

// Takes the first of the servers to answer to the front of all.
bool Look::askAny(const std::vector<HostPort>& servers) {
  unsigned left = rounds * static_cast<unsigned>(servers.size());
  for (unsigned round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < servers.size() && !takeEnd(); ++i, --left) {
      const Milliseconds share = Milliseconds(stepEnd() - Clock::now()) / left;
      const auto answer = ask(servers[i], std::min(answerLimit, share), 1);
      if (answer && answer->mapped) {
        findings_.seenByPeers = answer->mapped;
        findings_.roundTripMilliseconds = Milliseconds(answer->roundTrip).count();
        servers_ = servers;
        std::swap(servers_.front(), servers_[i]);
        step(Mark::passed, "STUN", "peers will see " + answer->mapped->text());
        return true;
      }
    }
  }
  return false;
}

std::optional<Look::Answer> Look::ask(const HostPort& server, Milliseconds limit, unsigned tries,
                                      std::size_t size) {
  for (; tries > 0; --tries) {
    const Milliseconds share = Milliseconds(stepEnd() - Clock::now()) / tries;
    const auto wait = std::chrono::duration_cast<Clock::duration>(std::min(limit, share));
    try {
      BindingTransaction transaction(association_->socket, association_->relay.relayAddress);
      transaction.send(server, size);
      if (const auto answer =
              transaction.await(BindingTransaction::Until::answer, Clock::now() + wait)) {
        return answer;
      }
    } catch (const std::system_error&) {
      // The system refuses the datagram, for its size perhaps: it does not pass.
    }
  }
  return std::nullopt;
}

void Look::wait(std::chrono::seconds time) {
  std::this_thread::sleep_for(time);
  waited_ += time;
}

Deadline Look::stepEnd() const {
  return stepBegan_ + waited_ + std::chrono::seconds(options_.timeoutSeconds);
}

void Look::comparePorts() {
  const auto other = std::find_if(servers_.begin(), servers_.end(), [this](const HostPort& server) {
    return server.host != servers_.front().host;
  });
  if (other == servers_.end()) {
    return;
  }
  const auto answer = ask(*other, answerLimit);
  if (!answer || !answer->mapped) {
    step(Mark::noted, "ports", fmt::format("no answer from {}", other->text()));
    return;
  }
  const Endpoint& first = *findings_.seenByPeers;
  findings_.isPortTheSame = first == *answer->mapped;
  findings_.isPortTheRelays = first.port == association_->relay.relayPort;
  if (!*findings_.isPortTheSame) {
    step(Mark::noted, "ports",
         fmt::format("the second destination sees {}: another one for each",
                     answer->mapped->text()));
  } else if (findings_.isPortTheRelays) {
    step(Mark::passed, "ports", "two destinations see the same port, the relay's own");
  } else {
    step(Mark::passed, "ports",
         "two destinations see the same port: \"relayedPort\": \"mapped\" helps");
    remark("set \"relayedPort\": \"mapped\"");
  }
  step(*findings_.isPortTheSame ? Mark::passed : Mark::noted, "calls",
       *findings_.isPortTheSame
           ? "two people behind this proxy can call each other"
           : "two people behind this proxy cannot call each other: use one that keeps one port");
}

void Look::conclude() {
  findings_.outcome = Outcome::carriesUDP;
  findings_.verdict = fmt::format("{} carries UDP: peers will see {}{}.", options_.proxy.text(),
                                  findings_.seenByPeers->text(), remark_);
}

void Look::conclude(const Failure& failure) {
  findings_.outcome = failure.outcome;
  findings_.verdict = fmt::format("{} {}: {}, got \"{}\"; {}.", options_.proxy.text(),
                                  failure.without, failure.asked, failure.came, failure.tryThis);
}

std::optional<std::string> Look::takeEnd() {
  return association_->control->takeEnd();
}

}  // namespace zk
