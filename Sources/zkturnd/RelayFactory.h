#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// Makes relays through one SOCKS5 proxy, all with the same settings, which are not tested here: a
/// bad host or port shows when a relay is opened.
struct SOCKS5RelayFactory final : TURNRelayFactory {
  std::string proxyHost;
  std::int64_t proxyPort = 0;
  std::optional<std::string> proxyUser;  // absent for none
  std::optional<std::string> proxyPass;  // absent for none

  SOCKS5RelayFactory(std::string host, std::int64_t port, std::optional<std::string> user,
                     std::optional<std::string> pass);

  /// A new SOCKS5Relay, not yet opened.
  std::shared_ptr<TURNRelay> makeRelay(const FiveTuple& forClient) override;
};

}  // namespace zk
