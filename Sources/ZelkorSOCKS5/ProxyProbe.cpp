#include "ZelkorSOCKS5/ProxyProbe.h"

#include <system_error>

#include "ZelkorSOCKS5/BindingTransaction.h"

namespace zk {
namespace {

// Runs `call`, and turns what the system has to say against it into a SOCKS5Error.
template <typename Call>
auto orFail(const char* what, Call call) {
  try {
    return call();
  } catch (const std::system_error& error) {
    throw SOCKS5Error::connectionFailed(what + error.code().message());
  }
}

}  // namespace

Endpoint ProbeRelay::sendSTUN(const Endpoint& relay, const Endpoint& stunServer, double timeout) {
  using Clock = Deadline::clock;
  const Deadline deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                               std::chrono::duration<double>(timeout));
  DatagramSocket socket = orFail("relay failed: ", DatagramSocket::open);
  BindingTransaction transaction(socket, relay);
  orFail("UDP send: ", [&] { transaction.send(stunServer); });
  const auto answer = orFail("UDP recv: ", [&] {
    return transaction.await(BindingTransaction::Until::datagram, deadline);
  });
  if (!answer) {
    throw SOCKS5Error::stunTimeout();
  }
  if (!answer->mapped) {
    throw SOCKS5Error::stunMalformed();
  }
  return *answer->mapped;
}

SOCKS5Probe::Outcome SOCKS5Probe::probe(const SOCKS5Proxy& proxy, const Endpoint& stunServer,
                                        double timeout) {
  try {
    SOCKS5Control control(proxy.host, proxy.port, proxy.username, proxy.password, timeout);
    control.connect();
    const auto relay = control.performHandshakeAndUDPAssociate();
    return {true, ProbeRelay::sendSTUN(relay.relayAddress, stunServer, timeout).text(),
            std::nullopt};
  } catch (const std::exception& error) {
    return {false, std::nullopt, error.what()};
  }
}

}  // namespace zk
