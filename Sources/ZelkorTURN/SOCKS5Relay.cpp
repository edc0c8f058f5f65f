#include "ZelkorTURN/SOCKS5Relay.h"

#include <algorithm>
#include <array>
#include <utility>

#include "ZelkorTURN/EgressProbe.h"

namespace zk {
namespace {

constexpr int egressProbeSeconds = 8;

// While a backlog waits, the socket is tried so often. Its own buffer holds more than leaves by any
// way in a millisecond, so that the way out never stands idle for it.
constexpr std::chrono::milliseconds retryInterval{1};

void logUnwrapped(const ReceivedDatagram& datagram, LineBatch& lines) {
  const auto& [payload, source, name] = datagram;
  if (!name) {
    lines.line() << "RECV unwrap OK from " << source << " " << payload.size() << "B → handler";
    return;
  }
  logLine([&](std::string_view line) { lines.add(line); },
          FMT_COMPILE("RECV unwrap OK from {}:{} {}B → handler"), *name, source.port,
          payload.size());
}

}  // namespace

SOCKS5Relay::SOCKS5Relay(std::shared_ptr<const SOCKS5RelaySettings> settings)
    : settings_(std::move(settings)) {}

// ---- Opening, on a thread of its own -----------------------------------------------------------

RelayedAddress SOCKS5Relay::open(const OpeningAttempt& attempt) {
  if (association_) {
    throw SOCKS5Error::connectionFailed("relay already open");
  }
  // Closes itself when something below throws.
  OpeningAttempt how = attempt;
  how.viaDefault |= settings_->viaDefault;
  auto association = Association::open(settings_->proxy, how);
  const auto& relay = association.relay;
  Egress egress{"0.0.0.0", relay.relayPort};
  if (settings_->findsEgress) {
    egress = probeEgressIP(association.socket, relay.relayAddress, relay.relayHost,
                           egressProbeSeconds, settings_->egressLog, attempt.stop);
  }
  const auto port = settings_->reportsMappedPort ? egress.port : relay.relayPort;
  if (egress.ip.empty() || !port) {
    throw SOCKS5Error::connectionFailed("egress probe failed — fail-closed (no gateway fallback)");
  }
  association.control->watchAlive();
  association_ = std::move(association);
  return {std::move(egress.ip), *port};
}

// ---- From here on, on the loop's thread: from the proxy ----------------------------------------

void SOCKS5Relay::receive(const RelayLoop& loop, RelayListener& listener) {
  if (!association_) {
    return;
  }
  const int socket = association_->socket.descriptor();
  loop.loop.watch(socket, socketWatch_);
  try {
    loop.loop.watch(association_->control->descriptor(), controlWatch_);
  } catch (...) {
    loop.loop.unwatch(socket);
    throw;
  }
  loop_.emplace(loop);
  listener_ = &listener;
  lineBatch().line() << "RECV-THREAD start fd=" << socket;
}

void SOCKS5Relay::receiveBurst() {
  DatagramReceiver& receiver = loop_->receiver;
  const int received = receiver.receive(association_->socket);
  std::array<ReceivedDatagram, maxBurst> burst;
  std::size_t count = 0;
  {
    LineBatch lines = lineBatch();
    if (received < 0) {
      lines.line() << "RECV recvfrom n=" << received;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(std::max(received, 0)); ++i) {
      const ByteView datagram = receiver.datagram(i);
      const Endpoint sender = receiver.sender(i);
      lines.line() << "RECV recvfrom n=" << datagram.size();
      // Whoever suspects this address and sends to its ports must not get an answer by the proxy.
      if (sender != association_->relay.relayAddress) {
        lines.line() << "RECV from stranger " << sender << " " << datagram.size() << "B (DROPPED)";
        continue;
      }
      if (auto unwrapped = SOCKS5UDPFrame::unwrap(datagram)) {
        logUnwrapped(*unwrapped, lines);
        burst[count++] = std::move(*unwrapped);
      } else {
        lines.line() << "RECV unwrap FAILED " << datagram.size() << "B (DROPPED)";
      }
      if (hasEnded_) {
        heardAt_ = loop_->loop.now();
      }
    }
  }
  if (count > 0) {
    listener_->onDatagrams(std::span(burst).first(count));  // may close the relay
  }
}

void SOCKS5Relay::controlIsReadable() {
  SOCKS5Control& control = *association_->control;
  if (const auto reason = control.takeEnd()) {
    loop_->loop.unwatch(control.descriptor());
    control.close();
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
    listener_->onLoss(RelayListener::Loss::silent);  // may close the relay
  }
}

// ---- The way to the proxy ----------------------------------------------------------------------

RelayWay SOCKS5Relay::way() const {
  const auto& relay = association_->relay;
  return {relay.relayHost, relay.relayAddress, association_->interface};
}

void SOCKS5Relay::setCutOff(bool isCutOff) {
  if (std::exchange(isCutOff_, isCutOff) != isCutOff) {
    association_->control->setQuiet(isCutOff);
    logLine(settings_->dataPlaneLog,
            FMT_COMPILE("SEND fd={} {}: the interface has {} to the proxy"),
            association_->socket.descriptor(), isCutOff ? "stops" : "goes on",
            isCutOff ? "no route" : "a route");
  }
}

// ---- To the proxy ------------------------------------------------------------------------------

void SOCKS5Relay::sendAll(std::span<const PeerDatagram> datagrams) {
  if (!loop_) {
    return;
  }
  LineBatch lines = lineBatch();
  while (!datagrams.empty() && !backlog_) {
    const std::size_t size = std::min(datagrams.size(), maxBurst);
    const std::size_t done = sendBurst(datagrams.first(size), lines);
    datagrams = datagrams.subspan(done);
    if (done < size) {
      break;
    }
  }
  for (const PeerDatagram& datagram : datagrams) {
    keep(datagram, lines);
  }
}

// How many of the burst are done with: sent, or refused for good.
std::size_t SOCKS5Relay::sendBurst(std::span<const PeerDatagram> burst, LineBatch& lines) {
  if (isCutOff_) {
    for (const PeerDatagram& datagram : burst) {
      logSend(datagram, -1, lines);
    }
    return burst.size();
  }
  DatagramSender& sender = loop_->sender;
  for (const PeerDatagram& datagram : burst) {
    sender.add(datagram.peer.header, datagram.payload, association_->relay.relayAddress);
  }
  std::size_t done = 0;
  for (const DatagramSender::Result& result : sender.send(association_->socket)) {
    if (result.wouldBlock) {
      break;
    }
    logSend(burst[done++], result.sent, lines);
  }
  return done;
}

void SOCKS5Relay::keep(const PeerDatagram& datagram, LineBatch& lines) {
  if (!backlog_) {
    backlog_ = std::make_unique<SendBacklog>();
    startTimer(backlogTimer_, retryInterval, &SOCKS5Relay::sendBacklog);
  }
  if (!backlog_->add(datagram, loop_->loop.now())) {
    logSend(datagram, -1, lines);
  }
}

void SOCKS5Relay::sendBacklog() {
  LineBatch lines = lineBatch();
  const std::size_t stale = backlog_->countStale(loop_->loop.now());
  for (const PeerDatagram& datagram : backlog_->front(stale)) {
    logSend(datagram, -1, lines);
  }
  backlog_->pop(stale);
  std::size_t size = 0;
  std::size_t done = 0;
  do {
    const auto burst = backlog_->front(maxBurst);
    size = burst.size();
    done = sendBurst(burst, lines);
    backlog_->pop(done);
  } while (done == size && size > 0);
  if (backlog_->isEmpty()) {
    backlog_.reset();
  } else {
    startTimer(backlogTimer_, retryInterval, &SOCKS5Relay::sendBacklog);
  }
}

void SOCKS5Relay::logSend(const PeerDatagram& datagram, std::ptrdiff_t sent,
                          LineBatch& lines) const {
  lines.line() << "SEND fd=" << association_->socket.descriptor() << " → " << datagram.peer.endpoint
               << " " << datagram.payload.size() << "B sendto=" << sent;
}

void SOCKS5Relay::startTimer(std::optional<EventLoop::TimerID>& timer,
                             std::chrono::nanoseconds delay, void (SOCKS5Relay::*operation)()) {
  timer = loop_->loop.after(delay, [this, &timer, operation] {
    timer.reset();
    (this->*operation)();
  });
}

// ---- The end -----------------------------------------------------------------------------------

void SOCKS5Relay::stopWatching() {
  if (!loop_) {
    return;
  }
  for (const auto& timer : {backlogTimer_, silenceTimer_}) {
    if (timer) {
      loop_->loop.cancel(*timer);
    }
  }
  loop_->loop.unwatch(association_->socket.descriptor());
  if (!hasEnded_) {
    loop_->loop.unwatch(association_->control->descriptor());
  }
  loop_.reset();
}

void SOCKS5Relay::retire() {
  stopWatching();
  backlog_.reset();
}

void SOCKS5Relay::close() {
  retire();
  association_.reset();
}

}  // namespace zk
