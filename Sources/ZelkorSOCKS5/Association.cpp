#include "ZelkorSOCKS5/Association.h"

#include <system_error>

#include "ZelkorSOCKS5/InterfaceScope.h"

namespace zk {
namespace {

constexpr double pinnedConnectTimeout = 3.0;  // seconds

// A UDP socket on an ephemeral port, pinned to the interface if there is one.
DatagramSocket openSocket(std::optional<unsigned> interface) {
  const char* step = "socket: ";
  try {
    DatagramSocket socket = DatagramSocket::open();
    socket.enlargeBuffers();
    if (interface) {
      step = "pin relay socket: ";
      pinToInterface(socket.descriptor(), AF_INET, *interface);
    }
    step = "bind relay socket: ";
    socket.bind({});
    return socket;
  } catch (const std::system_error& error) {
    throw SOCKS5Error::connectionFailed(step + error.code().message());
  }
}

}  // namespace

std::array<OpeningAttempt, 2> openingAttempts(const StopSignal* stop) {
  return {
      {{.connectTimeout = pinnedConnectTimeout, .stop = stop}, {.viaDefault = true, .stop = stop}}};
}

Association Association::open(const SOCKS5Proxy& proxy, const OpeningAttempt& attempt,
                              const SOCKS5Control::StageWatcher& onStage) {
  auto control = std::make_unique<SOCKS5Control>(
      proxy.host, proxy.port, proxy.username, proxy.password, attempt.connectTimeout, attempt.stop);
  control->onStage = onStage;
  control->failsWhenClosed = attempt.failsWhenClosed;
  control->connect(attempt.controlViaDefault ? std::optional(true) : std::nullopt);
  auto relay = control->performHandshakeAndUDPAssociate();
  control->onStage = nullptr;
  const sockaddr_in address = relay.relayAddress.socketAddress();
  const auto interface = InterfaceScope::interfaceFor(
      relay.relayHost, reinterpret_cast<const sockaddr&>(address), attempt.viaDefault);
  return {std::move(control), openSocket(interface), std::move(relay), interface};
}

}  // namespace zk
