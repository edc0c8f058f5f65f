#include "ZelkorTURN/SOCKS5Relay.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "Base/IPv4.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/EgressProbe.h"

namespace zk {
namespace {

constexpr int egressProbeSeconds = 8;

// While a backlog waits, the socket is tried so often. Its own buffer holds more than leaves by any
// way in a millisecond, so that the way out never stands idle for it.
constexpr std::chrono::milliseconds retryInterval{1};

// A UDP socket on an ephemeral port, pinned to the interface if there is one.
DatagramSocket openRelaySocket(std::optional<unsigned> interface) {
  try {
    DatagramSocket socket = DatagramSocket::open();
    socket.enlargeBuffers();
    if (interface) {
      socket.pin(*interface);
    }
    socket.bind(socketAddress("0.0.0.0", 0));
    return socket;
  } catch (const std::system_error& error) {
    const bool binding = std::string_view(error.what()).starts_with("bind");
    throw SOCKS5Error::connectionFailed((binding ? "bind relay socket: " : "socket: ") +
                                        error.code().message());
  }
}

}  // namespace

SOCKS5Relay::SOCKS5Relay(std::shared_ptr<const SOCKS5RelaySettings> settings)
    : settings_(std::move(settings)) {}

// ---- Opening, on a thread of its own -----------------------------------------------------------

RelayedAddress SOCKS5Relay::open(const OpeningAttempt& attempt) {
  if (socket_) {
    throw SOCKS5Error::connectionFailed("relay already open");
  }
  // Until they are stored, both close themselves when something below throws.
  auto control = std::make_unique<SOCKS5Control>(settings_->proxyHost, settings_->proxyPort,
                                                 settings_->username, settings_->password,
                                                 attempt.connectTimeout, attempt.stop);
  control->connect();
  const SOCKS5Control::RelayEndpoint relay = control->performHandshakeAndUDPAssociate();
  const auto interface = InterfaceScope::interfaceFor(
      relay.relayHost, reinterpret_cast<const sockaddr&>(relay.relayAddress), attempt.viaDefault);
  DatagramSocket socket = openRelaySocket(interface);

  Egress egress = probeEgressIP(socket, relay.relayAddress, relay.relayHost, egressProbeSeconds,
                                settings_->egressLog, attempt.stop);
  const auto port = settings_->reportsMappedPort ? egress.port : relay.relayPort;
  if (egress.ip.empty() || !port) {
    throw SOCKS5Error::connectionFailed("egress probe failed — fail-closed (no gateway fallback)");
  }
  control->watchAlive();
  control_ = std::move(control);
  socket_ = std::move(socket);
  relayAddr_ = relay.relayAddress;
  interface_ = interface;
  return {std::move(egress.ip), *port};
}

// ---- From here on, on the loop's thread: from the proxy ----------------------------------------

void SOCKS5Relay::receive(const RelayLoop& loop, RelayListener& listener) {
  if (!socket_) {
    return;
  }
  loop.loop.watch(socket_.descriptor(), socketWatch_);
  try {
    loop.loop.watch(control_->descriptor(), controlWatch_);
  } catch (...) {
    loop.loop.unwatch(socket_.descriptor());
    throw;
  }
  loop_.emplace(loop);
  listener_ = &listener;
  logLine(settings_->dataPlaneLog, FMT_COMPILE("RECV-THREAD start fd={}"), socket_.descriptor());
}

void SOCKS5Relay::onRouteChange(const RouteCheck& hasRoute) {
  const RouteAnswer answer = interface_ ? hasRoute(*interface_, relayAddr_) : RouteAnswer::yes;
  if (answer == RouteAnswer::unknown) {
    return;
  }
  const bool isCutOff = answer == RouteAnswer::no;
  if (std::exchange(isCutOff_, isCutOff) != isCutOff) {
    control_->setQuiet(isCutOff);
    logLine(settings_->dataPlaneLog,
            FMT_COMPILE("SEND fd={} {}: the interface has {} to the proxy"), socket_.descriptor(),
            isCutOff ? "stops" : "goes on", isCutOff ? "no route" : "a route");
  }
}

void SOCKS5Relay::receiveBurst() {
  const LogCallback& log = settings_->dataPlaneLog;
  DatagramReceiver& receiver = loop_->receiver;
  const int received = receiver.receive(socket_);
  if (received < 0) {
    logLine(log, FMT_COMPILE("RECV recvfrom n={}"), received);
  }
  burst_.clear();
  for (std::size_t i = 0; i < static_cast<std::size_t>(std::max(received, 0)); ++i) {
    const ByteView datagram = receiver.datagram(i);
    const sockaddr_in& sender = receiver.sender(i);
    logLine(log, FMT_COMPILE("RECV recvfrom n={}"), datagram.size());
    // Whoever suspects this address and sends to its ports must not get an answer by the proxy.
    if (!isSameAddress(sender, relayAddr_)) {
      logLine(log, FMT_COMPILE("RECV from stranger {}:{} {}B (DROPPED)"), addressText(sender),
              portNumber(sender), datagram.size());
      continue;
    }
    auto frame = SOCKS5UDPFrame::unwrap(datagram);
    if (frame) {
      logLine(log, FMT_COMPILE("RECV unwrap OK from {}:{} {}B → handler"), frame->srcIP,
              frame->srcPort, frame->payload.size());
      burst_.push_back({frame->payload, std::move(frame->srcIP), frame->srcPort});
    } else {
      logLine(log, FMT_COMPILE("RECV unwrap FAILED {}B (DROPPED)"), datagram.size());
    }
    if (hasEnded_) {
      heardAt_ = loop_->loop.now();
    }
  }
  if (!burst_.empty()) {
    listener_->onDatagrams(burst_);  // may close the relay
  }
}

void SOCKS5Relay::controlIsReadable() {
  if (const auto reason = control_->takeEnd()) {
    loop_->loop.unwatch(control_->descriptor());
    control_->close();
    hasEnded_ = true;
    heardAt_ = loop_->loop.now();
    startTimer(silenceTimer_, maxSilence, &SOCKS5Relay::lookForSilence);
    listener_->onAssociationEnd(*reason);
  }
}

void SOCKS5Relay::lookForSilence() {
  const auto silent = std::chrono::nanoseconds(loop_->loop.now() - heardAt_);
  if (silent < maxSilence) {
    startTimer(silenceTimer_, maxSilence - silent, &SOCKS5Relay::lookForSilence);
  } else {
    listener_->onSilence();  // may close the relay
  }
}

// ---- To the proxy ------------------------------------------------------------------------------

void SOCKS5Relay::sendAll(std::span<const PeerDatagram> datagrams) {
  if (!loop_) {
    return;
  }
  while (!datagrams.empty() && backlog_.empty()) {
    const std::size_t size = std::min(datagrams.size(), maxBurst);
    const std::size_t done = sendBurst(datagrams.first(size));
    datagrams = datagrams.subspan(done);
    if (done < size) {
      break;
    }
  }
  for (const PeerDatagram& datagram : datagrams) {
    keep(datagram);
  }
}

// How many of the burst are done with: sent, or refused for good.
std::size_t SOCKS5Relay::sendBurst(std::span<const PeerDatagram> burst) {
  if (isCutOff_) {
    for (const PeerDatagram& datagram : burst) {
      logSend(datagram, -1);
    }
    return burst.size();
  }
  DatagramSender& sender = loop_->sender;
  for (const PeerDatagram& datagram : burst) {
    sender.add(SOCKS5UDPFrame::header(datagram.peerIP, datagram.peerPort), datagram.payload,
               relayAddr_);
  }
  std::size_t done = 0;
  for (const DatagramSender::Result& result : sender.send(socket_)) {
    if (result.wouldBlock) {
      break;
    }
    logSend(burst[done++], result.sent);
  }
  return done;
}

void SOCKS5Relay::keep(const PeerDatagram& datagram) {
  if (backlogOctets_ + datagram.payload.size() > maxBacklog) {
    logSend(datagram, -1);
    return;
  }
  backlogOctets_ += datagram.payload.size();
  backlog_.push_back({{datagram.payload.begin(), datagram.payload.end()},
                      datagram.peerIP,
                      datagram.peerPort,
                      loop_->loop.now()});
  if (!backlogTimer_) {
    startTimer(backlogTimer_, retryInterval, &SOCKS5Relay::sendBacklog);
  }
}

void SOCKS5Relay::sendBacklog() {
  const auto drop = [this] {
    backlogOctets_ -= backlog_.front().payload.size();
    backlog_.pop_front();
  };
  const auto front = [this](std::size_t i) {
    const Waiting& waiting = backlog_[i];
    return PeerDatagram{waiting.payload, waiting.peerIP, waiting.peerPort};
  };
  const std::uint64_t now = loop_->loop.now();
  while (!backlog_.empty() && std::chrono::nanoseconds(now - backlog_.front().since) > maxAge) {
    logSend(front(0), -1);
    drop();
  }
  std::size_t size = 0;
  std::size_t done = 0;
  do {
    std::vector<PeerDatagram> burst;
    size = std::min(backlog_.size(), maxBurst);
    for (std::size_t i = 0; i < size; ++i) {
      burst.push_back(front(i));
    }
    done = sendBurst(burst);
    for (std::size_t i = 0; i < done; ++i) {
      drop();
    }
  } while (done == size && size > 0);
  if (!backlog_.empty()) {
    startTimer(backlogTimer_, retryInterval, &SOCKS5Relay::sendBacklog);
  }
}

void SOCKS5Relay::logSend(const PeerDatagram& datagram, std::ptrdiff_t sent) const {
  logLine(settings_->dataPlaneLog, FMT_COMPILE("SEND fd={} → {}:{} {}B sendto={}"),
          socket_.descriptor(), datagram.peerIP, datagram.peerPort, datagram.payload.size(), sent);
}

void SOCKS5Relay::startTimer(std::optional<EventLoop::TimerID>& timer,
                             std::chrono::nanoseconds delay, void (SOCKS5Relay::*operation)()) {
  timer = loop_->loop.after(delay, [this, &timer, operation] {
    timer.reset();
    (this->*operation)();
  });
}

// ---- The end -----------------------------------------------------------------------------------

void SOCKS5Relay::close() {
  if (loop_) {
    for (const auto& timer : {backlogTimer_, silenceTimer_}) {
      if (timer) {
        loop_->loop.cancel(*timer);
      }
    }
    loop_->loop.unwatch(socket_.descriptor());
    if (!hasEnded_) {
      loop_->loop.unwatch(control_->descriptor());
    }
    loop_.reset();
  }
  backlog_.clear();
  control_.reset();
  socket_.close();
}

}  // namespace zk
