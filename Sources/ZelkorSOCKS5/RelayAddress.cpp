#include "ZelkorSOCKS5/RelayAddress.h"

#include <fmt/format.h>

#include "Platform/Resolver.h"
#include "Platform/StopSignal.h"
#include "ZelkorSOCKS5/AddressReach.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {

Endpoint relayAddress(const RelayAnswer& answer, const sockaddr& proxy, Deadline deadline,
                      const StopSignal* stop) {
  const auto lookupFailed = [&](const std::string& reason) {
    return SOCKS5Error::connectionFailed(
        fmt::format("relay getaddrinfo({}:{}): {}", answer.host, answer.port, reason));
  };
  const auto unusable = [&](const std::string& reason) {
    return SOCKS5Error::protocolError(fmt::format(
        "relay {}:{}: {}", answer.host.empty() ? "0.0.0.0" : answer.host, answer.port, reason));
  };
  if (answer.port == 0) {
    throw unusable("no port to send to");
  }
  if (answer.addressType == SOCKS5AddressType::ipv6) {
    throw lookupFailed("IPv6, and datagrams go over IPv4 only");
  }
  if (!answer.host.empty()) {
    const Resolution found = resolveUDPv4(answer.host, std::to_string(answer.port), deadline, stop);
    if (stop != nullptr && stop->isRaised()) {
      throw SOCKS5Error::connectionFailed("stopped", SOCKS5Error::Cause::stopped);
    }
    if (found.addresses.empty()) {
      throw lookupFailed(found.error);
    }
    const auto& address = reinterpret_cast<const sockaddr&>(found.addresses.front().address);
    const Endpoint named{ipv4Of(address).value(), answer.port};
    const AddressBlock block = blockOf(address);
    if (block.unusable != nullptr && named.address != INADDR_ANY) {
      throw unusable(block.unusable);
    }
    if (named.address != INADDR_ANY && block.reach >= blockOf(proxy).reach) {
      return named;
    }
  }
  const auto own = ipv4Of(proxy);
  if (!own) {
    throw unusable("means the proxy's own address, which is IPv6, and datagrams go over IPv4 only");
  }
  return {*own, answer.port};
}

}  // namespace zk
