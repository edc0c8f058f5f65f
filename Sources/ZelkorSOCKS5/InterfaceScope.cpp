#include "ZelkorSOCKS5/InterfaceScope.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>

#include "Platform/Semaphore.h"
#include "Platform/Sockets.h"

namespace zk {
namespace {

constexpr std::chrono::seconds resolutionLimit{3};

std::string lowerCased(std::string_view text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lowered;
}

}  // namespace

std::optional<bool> InterfaceScope::modeOverride;
std::mutex InterfaceScope::lock;
bool InterfaceScope::resolved = false;
std::optional<NetworkInterface> InterfaceScope::cachedNW;
std::optional<std::string> InterfaceScope::cachedName;

bool InterfaceScope::shouldScope(std::string_view host, std::optional<bool> override) {
  const std::string lowered = lowerCased(host);
  if (lowered == "localhost" || lowered == "::1" || lowered == "0.0.0.0" ||
      lowered.starts_with("127.")) {
    return false;
  }
  if (override) {
    return !*override;
  }
  const char* const viaDefault = std::getenv("ZK_EGRESS_VIA_DEFAULT");
  return viaDefault == nullptr || std::string_view(viaDefault) != "1";
}

ConnectionParameters& InterfaceScope::scoped(ConnectionParameters& parameters,
                                             std::string_view host, std::optional<bool> override) {
  if (shouldScope(host, override)) {
    if (auto interface = nwInterface()) {
      parameters.requiredInterface = std::move(interface);
    }
  }
  return parameters;
}

void InterfaceScope::bind(int socket, std::string_view forHost, std::optional<bool> override) {
  if (!shouldScope(forHost, override)) {
    return;
  }
  if (const auto index = ifIndex()) {
    pinToInterface(socket, *index);
  }
}

std::optional<NetworkInterface> InterfaceScope::nwInterface() {
  resolveIfNeeded();
  const std::lock_guard guard(lock);
  return cachedNW;
}

std::optional<std::string> InterfaceScope::name() {
  resolveIfNeeded();
  const std::lock_guard guard(lock);
  return cachedName;
}

std::optional<unsigned> InterfaceScope::ifIndex() {
  const auto cached = name();
  const unsigned index = cached ? interfaceIndex(*cached) : 0;
  return index == 0 ? std::nullopt : std::optional(index);
}

void InterfaceScope::invalidate() {
  const std::lock_guard guard(lock);
  resolved = false;
  cachedNW.reset();
  cachedName.reset();
}

void InterfaceScope::resolveIfNeeded() {
  const std::lock_guard guard(lock);
  if (resolved) {
    return;
  }
  resolved = true;
  SerialQueue queue("zk.ifscope");
  Semaphore found;
  // The handler writes the cache for the thread that waits here with the lock in its hand. After
  // cancel() it cannot be running any more, so a report that comes too late touches nothing.
  PathMonitor monitor([&found](const std::vector<NetworkInterface>& available) {
    const auto chosen = std::find_if(
        available.begin(), available.end(),
        [](const NetworkInterface& interface) { return interface.type != InterfaceType::other; });
    if (chosen == available.end()) {
      cachedNW.reset();
      cachedName.reset();
    } else {
      cachedNW = *chosen;
      cachedName = chosen->name;
    }
    found.signal();
  });
  monitor.start(queue);
  found.waitFor(resolutionLimit);
  monitor.cancel();
}

}  // namespace zk
