#include "ZelkorSeal/Carrier.h"

#include <array>
#include <csignal>
#include <system_error>

#include <sys/socket.h>

#include "ZelkorSOCKS5/AddressReach.h"

namespace zk {
namespace {

using Kind = KeptIn::Kind;

constexpr std::size_t maxPacket = 65536;

constexpr std::uint32_t everyHost = 0xFFFFFFFF;
constexpr std::uint32_t everyHostOfSeal = SealNetwork::address | 0xFF;

// Told from STUN, DTLS and RTP by its first octet (RFC 9443), as long as connections begin.
bool isQUIC(ByteView payload) {
  constexpr std::size_t least = 7;  // RFC 9000 section 17.2: version, and two connection IDs
  return payload.size() >= least && payload[0] >= 0xC0;
}

bool isError(const Packet& icmp) {
  constexpr std::uint8_t unreachable = 3;
  return !icmp.payload().empty() && icmp.payload()[0] == unreachable;
}

}  // namespace

Carrier::Carrier(EventLoop& loop, SealDescriptors seal, CarrierSettings settings)
    : loop_(loop),
      settings_(std::move(settings)),
      tun_(std::move(seal.tun)),
      buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(maxBurst * maxPacket)),
      connector_(loop, settings_.proxy, settings_.way),
      names_(loop, connector_, settings_.nameServers, settings_.log),
      gate_(loop, connector_, std::move(seal.listener), tun_, settings_.log),
      udp_(loop,
           settings_.opener ? settings_.opener
                            : UDPCarrier::proxyOpener(settings_.proxy, settings_.log),
           tun_, keptIn_, settings_.log, settings_.tell) {
  std::signal(SIGPIPE, SIG_IGN);  // moving octets without a copy knows no other way
  for (std::size_t i = 0; i < seal.namesUDP.size(); ++i) {
    nameSockets_.push_back(std::make_unique<NameSocket>(*this, std::move(seal.namesUDP[i]), false));
    nameSockets_.push_back(std::make_unique<NameSocket>(*this, std::move(seal.namesTCP[i]), true));
  }
  loop_.watch(tun_.descriptor(), *this);
}

Carrier::~Carrier() {
  loop_.unwatch(tun_.descriptor());
}

// ---- Packets -----------------------------------------------------------------------------------

// At most a burst; then the others get their turn.
void Carrier::onReadable() {
  PeerBatch batch;
  std::size_t kept = 0;  // until the batch is sent
  for (std::size_t i = 0; i < maxBurst; ++i) {
    const auto octets = tun_.read({buffer_.get() + kept * maxPacket, maxPacket});
    if (octets.empty()) {
      return;
    }
    kept += take(octets, batch) ? 1 : 0;
  }
}

// Whether the octets must live on until the batch is sent.
bool Carrier::take(std::span<std::uint8_t> octets, PeerBatch& batch) {
  auto packet = Packet::parse(octets);
  if (!packet || packet->source().address != SealNetwork::address) {
    keptIn_.add(Kind::other, {});
    return false;
  }
  const bool isTCP = packet->protocol() == Packet::tcp;
  if (packet->protocol() == Packet::icmp && isError(*packet)) {
    return false;  // of the seal's own system, and nobody's wish
  }
  if (isTCP && packet->source().port == SealNetwork::listenerPort) {
    gate_.takeFromListener(*packet);
  } else if (isTCP && !packet->has(Packet::syn)) {  // of a connection that there is, or of none
    gate_.takeFromProgram(*packet, packet->destination());
  } else if (const auto why = reasonToKeep(*packet)) {
    keep(*packet, *why);
  } else if (isTCP) {
    const bool isName = packet->destination().port == SealNetwork::namePort;
    gate_.takeFromProgram(*packet, isName ? names_.server() : packet->destination());
  } else if (packet->destination().port == SealNetwork::namePort) {
    names_.ask(packet->payload(),
               [this, from = packet->destination(), to = packet->source()](ByteView answer) {
                 tun_.write(PacketAnswer::datagramHeader(from, to, answer.size()), answer);
               });
  } else {
    udp_.take(*packet, batch);
    return true;
  }
  return false;
}

// Names at any address are ours to find.
std::optional<Kind> Carrier::reasonToKeep(const Packet& packet) const {
  const bool isTCP = packet.protocol() == Packet::tcp;
  const bool isUDP = packet.protocol() == Packet::udp;
  const Endpoint to = packet.destination();
  if (to.address == everyHost || to.address == everyHostOfSeal) {
    return Kind::broadcast;
  }
  if (to.address >> 28 == 0xE) {
    return Kind::multicast;
  }
  if (!isTCP && !isUDP) {
    return packet.protocol() == Packet::icmp ? Kind::icmp : Kind::other;
  }
  if (to.port == SealNetwork::namePort) {
    return std::nullopt;
  }
  const sockaddr_in address = to.socketAddress();
  const AddressBlock block = blockOf(reinterpret_cast<const sockaddr&>(address));
  if (block.unusable != nullptr || to.address >> 28 == 0xF) {
    return Kind::reserved;
  }
  const bool isCarried = block.reach == Reach::everywhere ||
                         (block.reach == Reach::privateNetwork && settings_.carriesPrivate);
  if (!isCarried) {
    return isTCP ? Kind::privateTCP : Kind::privateUDP;
  }
  const bool isKept = isUDP && !settings_.carriesQUIC && isQUIC(packet.payload());
  return isKept ? std::optional(Kind::quic) : std::nullopt;
}

// ICMP answers neither itself nor what went to many (RFC 1122 section 3.2.2).
void Carrier::keep(const Packet& packet, Kind why) {
  const Endpoint to = packet.destination();
  keptIn_.add(why, to);
  logLine(settings_.log, FMT_COMPILE("kept in: {} to {}"), KeptIn::name(why), to.text());
  if (why != Kind::icmp && why != Kind::multicast && why != Kind::broadcast) {
    tun_.write(PacketAnswer::unreachable(packet, PacketAnswer::Unreachable::prohibited,
                                         SealNetwork::gateway));
  }
}

// ---- Names by way of the loopback --------------------------------------------------------------

Carrier::NameSocket::NameSocket(Carrier& carrier, Descriptor socket, bool isTCP)
    : carrier_(carrier), socket_(std::move(socket)), isTCP_(isTCP) {
  if (isTCP_) {
    TCPSocket::prepareToCarry(socket_.get());
  }
  carrier_.loop_.watch(socket_.get(), *this);
}

Carrier::NameSocket::~NameSocket() {
  carrier_.loop_.unwatch(socket_.get());
}

void Carrier::NameSocket::onReadable() {
  try {
    if (isTCP_) {
      Endpoint from;
      while (auto program = TCPSocket::accepted(socket_.get(), from)) {
        carrier_.gate_.carry(std::move(*program), carrier_.names_.server());
      }
      return;
    }
    std::array<std::uint8_t, Names::maxQuestionSize> question;
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t size = recvfrom(socket_.get(), question.data(), question.size(), MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr*>(&from), &length);
    if (size > 0) {
      carrier_.names_.ask(
          ByteView(question).first(static_cast<std::size_t>(size)), [this, from](ByteView answer) {
            sendto(socket_.get(), answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&from), sizeof from);
          });
    }
  } catch (const std::system_error&) {  // the next one may do better
  }
}

}  // namespace zk
