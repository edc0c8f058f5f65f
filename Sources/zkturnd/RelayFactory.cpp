#include "zkturnd/RelayFactory.h"

#include "ZelkorTURN/SOCKS5Relay.h"

namespace zk {

SOCKS5RelayFactory::SOCKS5RelayFactory(std::string host, std::int64_t port,
                                       std::optional<std::string> user,
                                       std::optional<std::string> pass)
    : proxyHost(std::move(host)),
      proxyPort(port),
      proxyUser(std::move(user)),
      proxyPass(std::move(pass)) {}

std::shared_ptr<TURNRelay> SOCKS5RelayFactory::makeRelay(const FiveTuple& /*forClient*/) {
  return std::make_shared<SOCKS5Relay>(proxyHost, proxyPort, proxyUser, proxyPass);
}

}  // namespace zk
