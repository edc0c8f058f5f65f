#include "ZelkorSOCKS5/ProxyProbe.h"

#include <system_error>

#include <poll.h>

#include "Base/IPv4.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {
namespace {

constexpr std::size_t largestDatagram = 65536;

bool areEqual(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

// Runs `call`, and turns what the system has to say against it into a SOCKS5Error.
template <typename Call>
auto orFail(const char* what, Call call) {
  try {
    return call();
  } catch (const std::system_error& error) {
    throw SOCKS5Error::connectionFailed(what + errorText(error.code().value()));
  }
}

}  // namespace

ProbeSocket::ProbeSocket(const sockaddr_in& relay, std::optional<unsigned> interface)
    : relay_(relay), socket_(orFail("relay failed: ", DatagramSocket::open)) {
  if (interface) {
    socket_.pin(*interface);
  }
}

void ProbeSocket::send(ByteView payload, std::string_view ip, std::uint16_t port) {
  if (socket_.send(SOCKS5UDPFrame::wrap(payload, ip, port), relay_) < 0) {
    throw SOCKS5Error::connectionFailed("UDP send: " + lastErrorText());
  }
}

std::optional<Bytes> ProbeSocket::receive(Deadline deadline) {
  Bytes datagram(largestDatagram);
  while (waitFor(socket_.descriptor(), POLLIN, deadline) == Wait::ready) {
    sockaddr_in sender{};
    const auto received = orFail(
        "UDP recv: ", [&] { return receiveDatagram(socket_.descriptor(), datagram, sender); });
    if (received && areEqual(sender, relay_)) {
      datagram.resize(*received);
      return datagram;
    }
  }
  return std::nullopt;
}

std::string ProbeRelay::sendSTUN(const sockaddr_in& relay, ByteView stunIP, std::uint16_t stunPort,
                                 double timeout) {
  const Deadline deadline =
      std::chrono::steady_clock::now() +
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(timeout));
  const STUN::BindingRequest binding = STUN::makeBindingRequest();
  ProbeSocket socket(relay);
  socket.send(binding.request, formatIPv4(stunIP.data()), stunPort);
  const auto datagram = socket.receive(deadline);
  if (!datagram) {
    throw SOCKS5Error::stunTimeout();
  }
  const auto frame = SOCKS5UDPFrame::unwrap(*datagram);
  const auto mapped =
      frame ? STUN::parseXorMappedAddress(frame->payload, binding.txID) : std::nullopt;
  if (!mapped) {
    throw SOCKS5Error::stunMalformed();
  }
  return *mapped;
}

SOCKS5Probe::Outcome SOCKS5Probe::probe(const std::string& host, std::int64_t port,
                                        const std::optional<std::string>& username,
                                        const std::optional<std::string>& password, ByteView stunIP,
                                        std::uint16_t stunPort, double timeout) {
  try {
    SOCKS5Control control(host, port, username, password, timeout);
    control.connect();
    const auto relay = control.performHandshakeAndUDPAssociate();
    return {true, ProbeRelay::sendSTUN(relay.relayAddress, stunIP, stunPort, timeout),
            std::nullopt};
  } catch (const std::exception& error) {
    return {false, std::nullopt, error.what()};
  }
}

}  // namespace zk
