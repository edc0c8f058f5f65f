#include "ZelkorSeal/UDPCarrier.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "ZelkorSeal/Seal.h"
#include "ZelkorTURN/SOCKS5Relay.h"

namespace zk {
namespace {

constexpr std::chrono::seconds sweepInterval{5};

bool hasPassed(std::uint64_t now, std::uint64_t since, std::chrono::nanoseconds time) {
  return std::chrono::nanoseconds(now - since) >= time;
}

class Factory final : public TURNRelayFactory {
 public:
  explicit Factory(const ProxyAccess& access) {
    settings_->proxy = static_cast<const SOCKS5Proxy&>(access);
    settings_->viaDefault = access.viaDefault;
    settings_->findsEgress = false;  // nobody here is told under which address
  }
  std::shared_ptr<TURNRelay> makeRelay(const Endpoint& /*forClient*/) override {
    return std::make_shared<SOCKS5Relay>(settings_);
  }

 private:
  const std::shared_ptr<SOCKS5RelaySettings> settings_ = std::make_shared<SOCKS5RelaySettings>();
};

}  // namespace

std::shared_ptr<RelayOpener> UDPCarrier::proxyOpener(const ProxyAccess& access, LogCallback log) {
  return std::make_shared<RelayOpener>(std::make_shared<Factory>(access), std::move(log));
}

UDPCarrier::UDPCarrier(EventLoop& loop, std::shared_ptr<RelayOpener> opener, const Tun& tun,
                       KeptIn& keptIn, LogCallback log, Tell tell)
    : loop_(loop),
      tun_(tun),
      keptIn_(keptIn),
      log_(std::move(log)),
      tell_(std::move(tell)),
      lifetime_(loop),
      opener_(std::move(opener)) {
  sweep();
}

UDPCarrier::~UDPCarrier() {
  opener_->stop();
  loop_.cancel(sweepTimer_);
}

// ---- From the program --------------------------------------------------------------------------

void UDPCarrier::take(const Packet& packet, PeerBatch& batch) {
  const Endpoint program = packet.source();
  auto& port = ports_[program.port];
  if (!port) {
    port = std::make_shared<Port>(*this, program);
    keep(*port, packet);
    open(*port);
    return;
  }
  switch (port->state) {
    case Port::State::open:
      port->usedAt = loop_.now();
      batch.add(*port->relay, packet.payload(), Peer(packet.destination()));
      break;
    case Port::State::waiting:
    case Port::State::opening:
      keep(*port, packet);
      break;
    case Port::State::failed:
      if (hasPassed(loop_.now(), port->usedAt, pause)) {
        keep(*port, packet);
        open(*port);
      } else {
        refuse(packet);
      }
  }
}

void UDPCarrier::keep(Port& port, const Packet& packet) {
  const ByteView octets = packet.octets();
  if (port.kept.size() < maxKept && port.keptOctets + octets.size() <= maxKeptOctets) {
    port.kept.emplace_back(octets.begin(), octets.end());
    port.keptOctets += octets.size();
  }
}

// ---- Openings ----------------------------------------------------------------------------------

void UDPCarrier::open(Port& port) {
  port.state = Port::State::waiting;
  waiting_.push_back(port.program.port);
  startOpenings();
  if (waiting_.size() > maxWaiting) {
    const std::uint16_t oldest = waiting_.front();
    waiting_.pop_front();
    fail(*ports_.at(oldest));
  }
}

void UDPCarrier::startOpenings() {
  while (opening_ < RelayOpener::maxOpenings && !waiting_.empty()) {
    Port& port = *ports_.at(waiting_.front());
    waiting_.pop_front();
    port.state = Port::State::opening;
    ++opening_;
    opener_->open(port.program,
                  [&loop = loop_, weak = std::weak_ptr(self_),
                   program = port.program](std::optional<RelayOpener::Opened> opened) {
                    loop.post([weak, program, relay = opened ? opened->relay : nullptr] {
                      if (const auto self = weak.lock()) {
                        (*self)->onOpened(program, relay);
                      }
                    });
                  });
  }
}

void UDPCarrier::onOpened(const Endpoint& program, std::shared_ptr<TURNRelay> relay) {
  --opening_;
  Port& port = *ports_.at(program.port);
  try {
    if (relay) {
      makeRoom();
      relay->receive({loop_, receiver_, sender_, lineRoom_}, port);
      lifetime_.add(*relay, port);
      port.relay = std::move(relay);
    }
  } catch (const std::system_error& error) {
    logLine(log_, FMT_COMPILE("UDP of port {}: {}"), program.port, error.what());
    relay->close();
  }
  if (port.relay) {
    ++open_;
    port.state = Port::State::open;
    port.usedAt = loop_.now();
    sendKept(port);
  } else {
    fail(port);
    if (open_ > 0 && tell_) {
      std::exchange(tell_, nullptr)(fmt::format(
          "the proxy gives no more than {} UDP associations at once: some calls may fail", open_));
    }
  }
  startOpenings();
}

void UDPCarrier::sendKept(Port& port) {
  std::deque<Bytes> kept = std::exchange(port.kept, {});
  port.keptOctets = 0;
  PeerBatch batch;
  for (Bytes& octets : kept) {
    if (const auto packet = Packet::parse(octets)) {
      batch.add(*port.relay, packet->payload(), Peer(packet->destination()));
    }
  }
}

void UDPCarrier::fail(Port& port) {
  port.state = Port::State::failed;
  port.usedAt = loop_.now();
  port.keptOctets = 0;
  for (Bytes& octets : std::exchange(port.kept, {})) {
    if (const auto packet = Packet::parse(octets)) {
      refuse(*packet);
    }
  }
}

// A connected socket hears of this one and not of a host that cannot be reached.
void UDPCarrier::refuse(const Packet& packet) const {
  tun_.write(
      PacketAnswer::unreachable(packet, PacketAnswer::Unreachable::port, SealNetwork::gateway));
}

// ---- From peers --------------------------------------------------------------------------------

void UDPCarrier::deliver(Port& port, std::span<const ReceivedDatagram> datagrams) {
  port.usedAt = loop_.now();
  for (const ReceivedDatagram& datagram : datagrams) {
    if (datagram.name) {  // no address that a program could answer to
      keptIn_.add(KeptIn::Kind::other, {});
      continue;
    }
    tun_.write(PacketAnswer::datagramHeader(datagram.source, port.program, datagram.payload.size()),
               datagram.payload);
  }
}

void UDPCarrier::Port::onAssociationEnd(std::string_view reason) {
  logLine(carrier.log_, FMT_COMPILE("UDP of port {}: the proxy ended the association: {}"),
          program.port, reason);
}

// ---- The end -----------------------------------------------------------------------------------

// Whoever is calling, or has something to send in a batch, may still hold the port and its relay.
void UDPCarrier::remove(const Port& port) {
  const auto removed = ports_.extract(port.program.port);
  if (removed.mapped()->relay) {
    --open_;
    lifetime_.retire(removed.mapped()->relay);
  }
  loop_.post([kept = removed.mapped()] {});
}

void UDPCarrier::makeRoom() {
  if (open_ < maxRelays) {
    return;
  }
  const Port* idlest = nullptr;
  for (const auto& [number, port] : ports_) {
    if (port->relay && (idlest == nullptr || port->usedAt < idlest->usedAt)) {
      idlest = port.get();
    }
  }
  remove(*idlest);
}

void UDPCarrier::sweep() {
  const std::uint64_t now = loop_.now();
  std::vector<std::shared_ptr<Port>> over;
  for (const auto& [number, port] : ports_) {
    const bool isIdle = port->relay && hasPassed(now, port->usedAt, maxIdle);
    const bool hasFailed =
        port->state == Port::State::failed && hasPassed(now, port->usedAt, pause);
    if (isIdle || hasFailed) {
      over.push_back(port);
    }
  }
  for (const auto& port : over) {
    remove(*port);
  }
  sweepTimer_ = loop_.after(sweepInterval, [this] { sweep(); });
}

}  // namespace zk
