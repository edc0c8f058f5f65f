#include "ZelkorTURN/SOCKS5Relay.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <sys/socket.h>

#include "Platform/IPv4.h"
#include "Platform/Resolver.h"
#include "Platform/Sockets.h"
#include "Platform/Thread.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/DataPlaneLog.h"
#include "ZelkorTURN/EgressProbe.h"

namespace zk {
namespace {

constexpr int egressProbeSeconds = 8;

sockaddr_in resolveRelay(const std::string& host, std::uint16_t port) {
  const Resolution resolution = resolveUDPv4(host, std::to_string(port));
  if (resolution.addresses.empty()) {
    throw SOCKS5Error::connectionFailed(
        fmt::format("relay getaddrinfo({}:{}): {}", host, port, resolution.error));
  }
  sockaddr_in address{};
  std::memcpy(&address, &resolution.addresses.front().address, sizeof address);
  return address;
}

// A UDP socket towards `relayHost`, bound to an ephemeral port and pinned as InterfaceScope says.
int openRelaySocket(const std::string& relayHost) {
  const int fd = openUDPSocket();
  if (fd < 0) {
    throw SOCKS5Error::connectionFailed("socket: " + errorText(errno));
  }
  InterfaceScope::bind(fd, relayHost);
  if (!bindSocket(fd, socketAddress("0.0.0.0", 0))) {
    const int error = errno;
    closeSocket(fd);
    throw SOCKS5Error::connectionFailed("bind relay socket: " + errorText(error));
  }
  return fd;
}

}  // namespace

SOCKS5Relay::SOCKS5Relay(std::string proxyHost, std::int64_t proxyPort,
                         std::optional<std::string> username, std::optional<std::string> password)
    : proxyHost_(std::move(proxyHost)),
      proxyPort_(proxyPort),
      username_(std::move(username)),
      password_(std::move(password)) {}

RelayedAddress SOCKS5Relay::open() {
  {
    const std::lock_guard guard(lock_);
    if (udpFD_ >= 0) {
      throw SOCKS5Error::connectionFailed("relay already open");
    }
  }
  // Until it is stored, the control connection closes itself when something below throws.
  auto control =
      std::make_unique<SOCKS5Control>(proxyHost_, proxyPort_, username_, password_, connectTimeout);
  control->connect();
  const auto [relayHost, relayPort] = control->performHandshakeAndUDPAssociate();
  const sockaddr_in relayAddr = resolveRelay(relayHost, relayPort);
  const int fd = openRelaySocket(relayHost);
  {
    const std::lock_guard guard(lock_);
    control_ = std::move(control);
    relayAddr_ = relayAddr;
    udpFD_ = fd;
    isClosed_ = false;
  }

  std::string egressIP = probeEgressIP(fd, relayAddr, relayHost, egressProbeSeconds);
  if (egressIP.empty()) {
    {
      const std::lock_guard guard(lock_);
      udpFD_ = -1;
      isClosed_ = true;
      control.swap(control_);
    }
    control->close();
    closeSocket(fd);
    throw SOCKS5Error::connectionFailed("egress probe failed — fail-closed (no gateway fallback)");
  }
  return {std::move(egressIP), relayPort};
}

void SOCKS5Relay::sendAll(std::span<const PeerDatagram> datagrams) {
  const int fd = udpFD_;
  if (fd < 0) {
    throw SOCKS5Error::connectionFailed("relay socket not open");
  }
  int error = 0;  // of the first that was refused
  DatagramSender sender;
  while (!datagrams.empty()) {
    const auto burst = datagrams.first(std::min(datagrams.size(), mostPerCall));
    datagrams = datagrams.subspan(burst.size());
    for (const PeerDatagram& datagram : burst) {
      sender.add(SOCKS5UDPFrame::header(datagram.peerIP, datagram.peerPort), datagram.payload,
                 relayAddr_);
    }
    const auto outcomes = sender.send(fd);
    for (std::size_t i = 0; i < burst.size(); ++i) {
      zkDPLog(FMT_COMPILE("SEND fd={} → {}:{} {}B sendto={}"), fd, burst[i].peerIP,
              burst[i].peerPort, burst[i].payload.size(), outcomes[i].sent);
      error = error != 0 ? error : outcomes[i].error;
    }
  }
  if (error != 0) {
    throw SOCKS5Error::connectionFailed("sendto relay: " + errorText(error));
  }
}

void SOCKS5Relay::receive(Handler handler) {
  const int fd = udpFD_;
  if (fd < 0) {
    return;
  }
  zkDPLog(FMT_COMPILE("RECV-THREAD start fd={}"), fd);
  const std::lock_guard guard(lock_);
  // Peers are named by the header in front of each datagram.
  const auto receiver = std::make_shared<DatagramReceiver>(DatagramReceiver::Senders::ignored);
  receiveThread_ = startThread("zk.socks5relay.recv",
                               [self = shared_from_this(), receiver, run = std::move(handler)] {
                                 self->receiveLoop(*receiver, run);
                               });
}

void SOCKS5Relay::receiveLoop(DatagramReceiver& receiver, const Handler& handler) {
  std::vector<PeerDatagram> burst;
  burst.reserve(mostPerCall);
  for (int fd = udpFD_; fd >= 0; fd = udpFD_) {
    burst.clear();
    if (!receiveBurst(fd, receiver, burst)) {
      return;
    }
    if (!burst.empty()) {
      handler(burst);
    }
  }
}

// Whether the loop is to go on.
bool SOCKS5Relay::receiveBurst(int fd, DatagramReceiver& receiver,
                               std::vector<PeerDatagram>& burst) const {
  const int received = receiver.receive(fd);
  const int error = errno;
  if (received < 0) {
    zkDPLog(FMT_COMPILE("RECV recvfrom n={}"), received);
    return error != EINVAL && error != EBADF;
  }
  for (std::size_t i = 0; i < static_cast<std::size_t>(received); ++i) {
    const ByteView datagram = receiver.datagram(i);
    DataPlaneLines lines;
    lines.add(FMT_COMPILE("RECV recvfrom n={}"), datagram.size());
    if (udpFD_ < 0) {  // a shut-down socket shows by empty datagrams
      lines.write();
      return false;
    }
    auto frame = SOCKS5UDPFrame::unwrap(datagram);
    if (frame) {
      lines.add(FMT_COMPILE("RECV unwrap OK from {}:{} {}B → handler"), frame->srcIP,
                frame->srcPort, frame->payload.size());
      burst.push_back({frame->payload, std::move(frame->srcIP), frame->srcPort});
    } else {
      lines.add(FMT_COMPILE("RECV unwrap FAILED {}B (DROPPED)"), datagram.size());
    }
    lines.write();
  }
  return true;
}

void SOCKS5Relay::close() {
  int fd = -1;
  std::unique_ptr<SOCKS5Control> control;
  std::thread receiver;
  {
    const std::lock_guard guard(lock_);
    if (isClosed_) {
      return;
    }
    isClosed_ = true;
    fd = udpFD_.exchange(-1);
    control.swap(control_);
    receiver.swap(receiveThread_);
  }
  if (control) {
    control->close();
  }
  if (fd >= 0) {
    shutdownSocket(fd);
  }
  if (receiver.joinable()) {
    receiver.join();
  }
  // Last: a thread about to receive must not find the number in somebody else's hands.
  if (fd >= 0) {
    closeSocket(fd);
  }
}

}  // namespace zk
