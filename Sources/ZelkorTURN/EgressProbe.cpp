#include "ZelkorTURN/EgressProbe.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include "Platform/Clock.h"
#include "Platform/IPv4.h"
#include "Platform/LogFile.h"
#include "Platform/Resolver.h"
#include "Platform/Sockets.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr Seconds shortestWindow{0.2};
constexpr Seconds longestWindow{1.5};
constexpr std::size_t largestDatagram = 65536;

struct Target {
  std::string ip;
  std::uint16_t port = 0;
};

struct DefaultServer {
  const char* host;
  std::uint16_t port;
};
// Two operators, so that one that is blocked or down does not take every relay with it.
constexpr std::array<DefaultServer, 3> defaultServers{
    {{"stun.l.google.com", 19302}, {"stun1.l.google.com", 19302}, {"stun.cloudflare.com", 3478}}};

// The last address found per gateway. Entries are added and overwritten, never removed.
std::mutex egressCacheLock;
std::map<std::string, std::string>& egressCache() {  // guarded by egressCacheLock
  static std::map<std::string, std::string> cache;
  return cache;
}

void plog(std::string_view line) {
  std::string text = fmt::format("{} [egress-probe] {}", dateText(wallClockMicroseconds()), line);
  keepOnOneLine(text);
  text += '\n';
  appendToFile("/tmp/zk-egress.log", text, {.bits = 0666, .ignoresUmask = true});
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

std::optional<std::uint16_t> parsePort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc{} && end == text.data() + text.size() ? std::optional(port)
                                                                  : std::nullopt;
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
      targets.push_back({std::string(pieces[0]), *port});
    }
  }
  return targets;
}

std::optional<Target> resolveV4(const DefaultServer& server) {
  const Resolution resolution = resolveUDPv4(server.host, std::to_string(server.port));
  for (const ResolvedAddress& resolved : resolution.addresses) {
    if (resolved.family == AF_INET) {
      return Target{addressText(reinterpret_cast<const sockaddr_in&>(resolved.address)),
                    server.port};
    }
  }
  return std::nullopt;
}

std::vector<Target> stunTargets() {
  std::vector<Target> targets;
  const char* const given = std::getenv("ZK_STUN_IPS");
  if (given != nullptr && *given != '\0') {
    targets = parseTargets(given);
    plog(fmt::format("using {} STUN IPs from ZK_STUN_IPS env", targets.size()));
  }
  if (targets.empty()) {
    for (const DefaultServer& server : defaultServers) {
      if (auto target = resolveV4(server)) {
        targets.push_back(std::move(*target));
      }
    }
    plog(fmt::format("in-process resolved {} STUN targets", targets.size()));
  }
  std::string list;
  for (const Target& target : targets) {
    list += fmt::format("{}{}:{}", list.empty() ? "" : ",", target.ip, target.port);
  }
  plog("targets: " + list);
  return targets;
}

// Waits on `udpFD` until `windowEnd` for the answer to `txID`. Everything else that comes in, late
// answers to earlier targets included, is passed over.
std::optional<std::string> awaitAnswer(int udpFD, ByteView txID, Clock::time_point windowEnd,
                                       std::span<std::uint8_t> buffer) {
  while (true) {
    const auto left = windowEnd - Clock::now();
    if (left <= Clock::duration::zero()) {
      return std::nullopt;
    }
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
    if (pollSocket(udpFD, POLLIN, static_cast<int>(std::max<long long>(milliseconds, 1))) <= 0) {
      return std::nullopt;
    }
    const ssize_t received = recv(udpFD, buffer.data(), buffer.size(), 0);
    if (received <= 0) {
      return std::nullopt;
    }
    const auto frame =
        SOCKS5UDPFrame::unwrap(ByteView(buffer).first(static_cast<std::size_t>(received)));
    if (!frame) {
      continue;
    }
    if (auto mapped = STUN::parseXorMappedAddress(frame->payload, txID)) {
      return mapped->substr(0, mapped->find(':'));
    }
  }
}

}  // namespace

std::string probeEgressIP(int udpFD, const sockaddr_in& relayAddr, const std::string& gatewayIP,
                          int timeoutSecs) {
  plog(fmt::format("ENTER probe gateway={} timeout={}s", gatewayIP, timeoutSecs));
  const std::vector<Target> targets = stunTargets();
  if (targets.empty()) {
    plog("no targets → fallback " + gatewayIP);
    return gatewayIP;
  }

  const auto deadline = Clock::now() + std::chrono::seconds(timeoutSecs);
  Bytes buffer(largestDatagram);
  for (const Target& target : targets) {
    if (Clock::now() >= deadline) {
      break;
    }
    const STUN::BindingRequest binding = STUN::makeBindingRequest();
    const std::ptrdiff_t sent = sendDatagram(
        udpFD, SOCKS5UDPFrame::wrap(binding.request, target.ip, target.port), relayAddr);
    plog(fmt::format("→ STUN to {}:{} via relay sendRC={}", target.ip, target.port, sent));
    if (sent <= 0) {
      continue;
    }
    const auto now = Clock::now();
    const auto window = std::clamp(Seconds(deadline - now), shortestWindow, longestWindow);
    const auto windowEnd = now + std::chrono::duration_cast<Clock::duration>(window);
    if (const auto egress = awaitAnswer(udpFD, binding.txID, windowEnd, buffer)) {
      plog(fmt::format("✓ egress discovered = {} (via {})", *egress, target.ip));
      const std::lock_guard guard(egressCacheLock);
      egressCache()[gatewayIP] = *egress;
      return *egress;
    }
    plog(fmt::format("✗ no STUN response from {} within window", target.ip));
  }

  std::string lastKnownGood;
  {
    const std::lock_guard guard(egressCacheLock);
    const auto cached = egressCache().find(gatewayIP);
    if (cached != egressCache().end()) {
      lastKnownGood = cached->second;
    }
  }
  plog(lastKnownGood.empty() ? "all targets failed → fail-closed (no gateway fallback)"
                             : "all targets failed → last-known-good egress " + lastKnownGood);
  return lastKnownGood;
}

}  // namespace zk
