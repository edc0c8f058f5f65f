#include "ZelkorTURN/EgressProbe.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string_view>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "Platform/Mutex.h"
#include "Platform/Resolver.h"
#include "ZelkorSOCKS5/BindingTransaction.h"

namespace zk {
namespace {

using Clock = Deadline::clock;
using Seconds = std::chrono::duration<double>;

constexpr Seconds minWindow{0.2};
constexpr Seconds maxWindow{1.5};

// A STUN server. What ZK_STUN_IPS calls it is kept for the log, where it is no address.
struct Target {
  std::string ip;
  Endpoint endpoint;
};

// The last address found per gateway, for the whole process. Entries are added and overwritten,
// never removed.
class EgressCache {
 public:
  void store(const std::string& gateway, const std::string& egress) {
    const MutexLock guard(lock_);
    found_[gateway] = egress;
  }
  std::string lastKnownGood(const std::string& gateway) {
    const MutexLock guard(lock_);
    const auto entry = found_.find(gateway);
    return entry == found_.end() ? std::string() : entry->second;
  }

 private:
  Mutex lock_;
  std::map<std::string, std::string> found_ GUARDED_BY(lock_);
};

EgressCache& egressCache() {
  static EgressCache cache;
  return cache;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  while (true) {
    const std::size_t at = text.find(separator);
    pieces.push_back(text.substr(0, at));
    if (at == std::string_view::npos) {
      return pieces;
    }
    text.remove_prefix(at + 1);
  }
}

// "address:port,address:port,...". What does not read like that is left out.
std::vector<Target> parseTargets(std::string_view list) {
  std::vector<Target> targets;
  for (const std::string_view entry : split(list, ',')) {
    // Empty pieces do not count: ":1.2.3.4:5" and "1.2.3.4::5" are two pieces as well.
    std::vector<std::string_view> pieces = split(entry, ':');
    std::erase(pieces, std::string_view());
    const auto port = pieces.size() == 2 ? parsePort(pieces[1]) : std::nullopt;
    if (port) {
      const auto address = parseAddressLeniently(pieces[0]);
      targets.push_back({std::string(pieces[0]), {address.value_or(0), *port}});
    }
  }
  return targets;
}

std::optional<Target> resolveV4(const STUN::Server& server, Deadline deadline,
                                const StopSignal* stop) {
  const Resolution resolution =
      resolveUDPv4(server.host, std::to_string(server.port), deadline, stop);
  for (const ResolvedAddress& resolved : resolution.addresses) {
    if (resolved.family == AF_INET) {
      const auto endpoint = Endpoint::of(reinterpret_cast<const sockaddr_in&>(resolved.address));
      return Target{endpoint.ip(), {endpoint.address, server.port}};
    }
  }
  return std::nullopt;
}

// One probe: what it has been given, and its steps.
class Probe {
 public:
  Probe(DatagramSocket& socket, const Endpoint& relayAddr, const LogCallback& log,
        const StopSignal* stop, Deadline deadline)
      : socket_(socket), relayAddr_(relayAddr), log_(log), stop_(stop), deadline_(deadline) {}

  std::vector<Target> targets();
  std::optional<Egress> ask(const Target& target);
  bool isOver() const { return Clock::now() >= deadline_ || (stop_ && stop_->isRaised()); }

 private:
  DatagramSocket& socket_;
  const Endpoint relayAddr_;
  const LogCallback& log_;
  const StopSignal* const stop_;
  const Deadline deadline_;
};

std::vector<Target> Probe::targets() {
  std::vector<Target> targets;
  const char* const given = std::getenv("ZK_STUN_IPS");
  if (given != nullptr && *given != '\0') {
    targets = parseTargets(given);
    logLine(log_, FMT_COMPILE("using {} STUN IPs from ZK_STUN_IPS env"), targets.size());
  }
  if (targets.empty()) {
    for (const STUN::Server& server : STUN::defaultServers) {
      if (auto target = resolveV4(server, deadline_, stop_)) {
        targets.push_back(std::move(*target));
      }
    }
    logLine(log_, FMT_COMPILE("in-process resolved {} STUN targets"), targets.size());
  }
  std::string list;
  for (const Target& target : targets) {
    list += fmt::format("{}{}:{}", list.empty() ? "" : ",", target.ip, target.endpoint.port);
  }
  logLine(log_, FMT_COMPILE("targets: {}"), list);
  return targets;
}

std::optional<Egress> Probe::ask(const Target& target) {
  BindingTransaction transaction(socket_, relayAddr_);
  std::ptrdiff_t sent = -1;
  try {
    sent = transaction.send(target.endpoint);
  } catch (const std::system_error&) {
    // -1 says it
  }
  logLine(log_, FMT_COMPILE("→ STUN to {}:{} via relay sendRC={}"), target.ip, target.endpoint.port,
          sent);
  if (sent <= 0) {
    return std::nullopt;
  }
  const auto now = Clock::now();
  const auto window = std::clamp(Seconds(deadline_ - now), minWindow, maxWindow);
  // Whatever else comes in, late answers to earlier targets included, is passed over.
  const auto answer =
      transaction.await(BindingTransaction::Until::mapping,
                        now + std::chrono::duration_cast<Clock::duration>(window), stop_);
  if (!answer) {
    logLine(log_, FMT_COMPILE("✗ no STUN response from {} within window"), target.ip);
    return std::nullopt;
  }
  const Egress egress{answer->mapped->ip(), answer->mapped->port};
  logLine(log_, FMT_COMPILE("✓ egress discovered = {} (via {})"), egress.ip, target.ip);
  return egress;
}

}  // namespace

Egress probeEgressIP(DatagramSocket& socket, const Endpoint& relayAddr,
                     const std::string& gatewayIP, int timeoutSecs, const LogCallback& log,
                     const StopSignal* stop) {
  logLine(log, FMT_COMPILE("ENTER probe gateway={} timeout={}s"), gatewayIP, timeoutSecs);
  Probe probe(socket, relayAddr, log, stop, Clock::now() + std::chrono::seconds(timeoutSecs));
  const std::vector<Target> targets = probe.targets();
  if (targets.empty()) {
    logLine(log, FMT_COMPILE("no targets → fallback {}"), gatewayIP);
    return {gatewayIP, std::nullopt};
  }
  for (const Target& target : targets) {
    if (probe.isOver()) {
      break;
    }
    if (auto egress = probe.ask(target)) {
      egressCache().store(gatewayIP, egress->ip);
      return *egress;
    }
  }
  const std::string lastKnownGood = egressCache().lastKnownGood(gatewayIP);
  if (lastKnownGood.empty()) {
    logLine(log, FMT_COMPILE("all targets failed → fail-closed (no gateway fallback)"));
  } else {
    logLine(log, FMT_COMPILE("all targets failed → last-known-good egress {}"), lastKnownGood);
  }
  return {lastKnownGood, std::nullopt};
}

}  // namespace zk
