#pragma once

#include <memory>

#include "ZelkorTURN/SOCKS5Relay.h"

namespace zk {

/// Makes relays through one SOCKS5 proxy, all with the same settings. They are not checked here: a
/// bad host or port shows when a relay is opened.
class SOCKS5RelayFactory final : public TURNRelayFactory {
 public:
  explicit SOCKS5RelayFactory(SOCKS5RelaySettings settings)
      : settings_(std::make_shared<const SOCKS5RelaySettings>(std::move(settings))) {}

  /// A new SOCKS5Relay, not yet opened.
  std::shared_ptr<TURNRelay> makeRelay(const Endpoint& /*forClient*/) override {
    return std::make_shared<SOCKS5Relay>(settings_);
  }

 private:
  const std::shared_ptr<const SOCKS5RelaySettings> settings_;
};

}  // namespace zk
