#include "ZelkorSOCKS5/InterfaceScope.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "Base/Endpoint.h"
#include "Platform/Interfaces.h"
#include "ZelkorSOCKS5/AddressReach.h"

namespace zk {
namespace {

std::string lowerCased(std::string_view text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lowered;
}

}  // namespace

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

std::optional<unsigned> InterfaceScope::interfaceFor(std::string_view host,
                                                     const sockaddr& destination,
                                                     std::optional<bool> override) {
  if (!shouldScope(host, override)) {
    return std::nullopt;
  }
  Interfaces look;
  return interfaceFor(host, destination, override, look);
}

std::optional<unsigned> InterfaceScope::interfaceFor(std::string_view host,
                                                     const sockaddr& destination,
                                                     std::optional<bool> override,
                                                     Interfaces& look) {
  if (!shouldScope(host, override)) {
    return std::nullopt;
  }
  if (const auto ipv4 = ipv4Of(destination); ipv4 && destination.sa_family != AF_INET) {
    const sockaddr_in asIPv4 = Endpoint{*ipv4}.socketAddress();
    return interfaceFor(host, reinterpret_cast<const sockaddr&>(asIPv4), override, look);
  }
  const AddressBlock block = blockOf(destination);
  if (block.reach == Reach::machine || look.isOwnAddress(destination)) {
    return std::nullopt;
  }
  if (block.reach == Reach::privateNetwork) {
    // A route wider than the block is some way of taking over everything.
    const auto route = look.linkRouteTo(destination);
    if (route && route->prefixLength >= block.prefixLength) {
      return route->interfaceIndex;
    }
  }
  for (const NetworkInterface& interface : look.available()) {
    if (interface.type != InterfaceType::other && look.hasRoute(interface.index, destination)) {
      return interface.index;
    }
  }
  return std::nullopt;
}

}  // namespace zk
