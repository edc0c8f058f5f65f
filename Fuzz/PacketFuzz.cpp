// Any packets from a seal and any octets from the proxy, given to what carries between them. The
// tun is a pair of sockets, the proxy a listener on the loopback, and the clock the input's.

#include <array>
#include <cstring>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>

#include "Fuzz.h"
#include "Platform/Sockets.h"
#include "ZelkorSeal/Carrier.h"

namespace {
std::uint16_t proxyPort = 0;
}

// Nothing is sent elsewhere.
extern "C" int connect(int socket, const sockaddr* to, socklen_t length) {
  static const auto real = reinterpret_cast<decltype(&connect)>(dlsym(RTLD_NEXT, "connect"));
  const zk::Endpoint wanted = zk::Endpoint::of(reinterpret_cast<const sockaddr_in&>(*to));
  zk::fuzz::require(wanted == zk::Endpoint{INADDR_LOOPBACK, proxyPort}, "only the proxy is asked");
  return real(socket, to, length);
}

namespace zk::fuzz {
namespace {

Descriptor boundSocket(int type) {
  Descriptor made = openNonBlockingSocket(AF_INET, type, 0);
  const sockaddr_in address = Endpoint{INADDR_LOOPBACK, 0}.socketAddress();
  require(bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
              (type == SOCK_DGRAM || listen(made.get(), 64) == 0),
          "a socket can be had");
  return made;
}

std::uint16_t portOf(const Descriptor& socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

// RFC 1071 with the pseudo header in `sum`: 0 where the checksum is right.
std::uint32_t rest(std::uint64_t sum, ByteView octets) {
  for (std::size_t i = 0; i < octets.size(); ++i) {
    sum += i % 2 == 0 ? octets[i] * 256U : octets[i];
  }
  return static_cast<std::uint32_t>(sum % 0xFFFF);
}

void writeChecksum(Bytes& packet, std::size_t at, std::uint64_t sum, ByteView over) {
  writeUInt16(packet.data() + at, static_cast<std::uint16_t>(0xFFFF - rest(sum, over)));
}

std::uint64_t pseudoSum(ByteView packet) {
  return rest(packet[9] + packet.size() - 20, packet.subspan(12, 8));
}

// A relay that is there at once, or not at all.
class FuzzRelay final : public TURNRelay {
 public:
  FuzzRelay(std::vector<FuzzRelay*>& all, bool exists) : all_(all), exists_(exists) {
    all_.push_back(this);
  }
  ~FuzzRelay() override { std::erase(all_, this); }
  RelayedAddress allocateRelay(const OpeningAttempt&) override {
    if (!exists_) {
      throw SOCKS5Error::udpAssociateRejected(2);
    }
    return {"0.0.0.0", 1};
  }
  void sendAll(std::span<const PeerDatagram> datagrams) override {
    for (const PeerDatagram& datagram : datagrams) {
      const std::uint32_t to = datagram.peer.endpoint.address;
      require(to >> 24 != 127 && to >> 24 != 0 && to >> 29 != 7, "only hosts are sent to");
      require(datagram.payload.size() < 65'536, "no more than a packet holds");
    }
  }
  void receive(const RelayLoop&, RelayListener& listener) override { listener_ = &listener; }
  RelayWay way() const override { return {"127.0.0.1", {INADDR_LOOPBACK, 1}}; }
  void setCutOff(bool) override {}
  bool isCutOff() const override { return false; }
  void retire() override { listener_ = nullptr; }
  void close() override { listener_ = nullptr; }
  RelayListener* listener() const { return listener_; }

 private:
  std::vector<FuzzRelay*>& all_;
  const bool exists_;
  RelayListener* listener_ = nullptr;
};

class FuzzRelays final : public TURNRelayFactory {
 public:
  std::shared_ptr<TURNRelay> makeRelay(const Endpoint&) override {
    return std::make_shared<FuzzRelay>(all, exist);
  }
  // What a peer sends, or the proxy says, by one of those that are open.
  void hear(Input& input) {
    const std::uint8_t choice = input.octet();
    RelayListener* const listener = all.empty() ? nullptr : all[choice % all.size()]->listener();
    const ByteView payload = input.take(input.octet());
    if (listener == nullptr) {
      return;
    }
    const ReceivedDatagram datagram{payload, {input.number() * 65537U, input.number()}, {}};
    const ReceivedDatagram named{payload, {}, "a name"};
    switch (choice >> 5) {
      case 0:
        return listener->onLoss(RelayListener::Loss::silent);
      case 1:
        return listener->onAssociationEnd("the end");
      case 2:
        return listener->onDatagrams({&named, 1});
      default:
        return listener->onDatagrams({&datagram, 1});
    }
  }

  std::vector<FuzzRelay*> all;
  bool exist = true;
};

// Of a program, or of the listener, to some address: a segment or a datagram whose checksums are
// right.
Bytes packetFrom(Input& input) {
  static constexpr std::array<std::uint32_t, 7> addresses{
      0xCB007107, 0xC0A80101, 0xC0A80102, 0xE00000FB, 0x0A010203, 0xC0A80164, 0xFFFFFFFF};
  const std::uint8_t choice = input.octet();
  const bool isTCP = (choice & 1) != 0;
  const bool isOfListener = (choice & 2) != 0;
  const Bytes body = joined({input.take(isTCP ? 16 : 4), input.take(input.octet())});
  Bytes packet(20 + (isTCP ? 4 : 8) + body.size());
  packet[0] = 0x45;
  writeUInt16(packet.data() + 2, static_cast<std::uint16_t>(packet.size()));
  packet[9] = isTCP ? 6 : 17;
  writeUInt16(packet.data() + 12, 0xC0A8);
  writeUInt16(packet.data() + 14, 0x0164);
  const std::uint32_t to = addresses[(choice >> 4) % addresses.size()];
  writeUInt16(packet.data() + 16, static_cast<std::uint16_t>(to >> 16));
  writeUInt16(packet.data() + 18, static_cast<std::uint16_t>(to));
  const std::uint16_t near = 40'000 + (choice & 3);
  writeUInt16(packet.data() + 20, isOfListener ? SealNetwork::listenerPort : near);
  writeUInt16(packet.data() + 22, isOfListener        ? 1024 + (choice >> 6)
                                  : (choice & 4) != 0 ? 53
                                                      : 443);
  std::copy(body.begin(), body.end(), packet.end() - static_cast<std::ptrdiff_t>(body.size()));
  writeChecksum(packet, 10, 0, ByteView(packet).first(20));
  if (isTCP && packet.size() >= 40) {
    packet[32] = 0x50;
    writeUInt16(packet.data() + 36, 0);
    writeChecksum(packet, 36, pseudoSum(packet), ByteView(packet).subspan(20));
  } else if (!isTCP) {
    writeUInt16(packet.data() + 24, static_cast<std::uint16_t>(packet.size() - 20));
    writeUInt16(packet.data() + 26, 0);
  }
  return packet;
}

// A well-formed packet for the seal's address. Its inner checksum is right unless one of the
// program's own was wrong.
void check(ByteView packet, bool wereAllRight) {
  require(packet.size() >= 20 && packet[0] == 0x45 && readUInt16(packet, 2) == packet.size(),
          "what is written is one IPv4 packet");
  require(rest(0, packet.first(20)) == 0, "its IP checksum is right");
  require(readUInt16(packet, 16) == 0xC0A8 && readUInt16(packet, 18) == 0x0164,
          "it is for the seal's address");
  const bool isICMP = packet[9] == 1;
  const bool isUDP = packet[9] == 17;
  require(isICMP || isUDP || packet[9] == 6, "it is ICMP, UDP or TCP");
  require(packet.size() >= (packet[9] == 6 ? 40U : 28U), "it has its header");
  require(!isUDP || readUInt16(packet, 26) == 0, "a datagram has no checksum");
  if (wereAllRight || isICMP) {
    require(isUDP || rest(isICMP ? 0 : pseudoSum(packet), packet.subspan(20)) == 0,
            "its checksum is right");
  }
}

}  // namespace

void run(ByteView bytes) {
  static const Descriptor proxy = boundSocket(SOCK_STREAM);
  proxyPort = portOf(proxy);
  std::array<int, 2> pair{};
  require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, pair.data()) == 0, "a tun");
  const Descriptor tun(pair[0]);
  SealDescriptors seal{Descriptor(pair[1]),
                       boundSocket(SOCK_STREAM),
                       {boundSocket(SOCK_DGRAM), boundSocket(SOCK_DGRAM)},
                       {boundSocket(SOCK_STREAM), boundSocket(SOCK_STREAM)}};
  Input input(bytes);
  const std::uint8_t choice = input.octet();
  CarrierSettings settings;
  settings.proxy.host = "127.0.0.1";
  settings.proxy.port = proxyPort;
  if ((choice & 1) != 0) {
    settings.proxy.username = settings.proxy.password = "secret";
  }
  settings.carriesPrivate = (choice & 2) != 0;
  settings.way.emplace();
  const sockaddr_in address = Endpoint{INADDR_LOOPBACK, proxyPort}.socketAddress();
  std::memcpy(&settings.way->address, &address, sizeof address);

  const auto relays = std::make_shared<FuzzRelays>();
  settings.carriesQUIC = (choice & 4) != 0;
  settings.opener = std::make_shared<RelayOpener>(
      relays, nullptr, [](const std::string&, const std::function<void()>& body) { body(); });

  std::uint64_t now = 1;
  EventLoop loop([&now] { return now; });
  Carrier carrier(loop, std::move(seal), settings);
  std::vector<Descriptor> connections;
  bool areAllRight = true;
  std::array<std::uint8_t, 65536> written;
  for (int step = 0; step < 200 && !input.isEmpty(); ++step) {
    const std::uint8_t what = input.octet();
    relays->exist = (what & 0x80) == 0;
    switch (what % 7) {
      case 0: {
        const ByteView raw = input.take(input.octet());
        areAllRight = false;
        send(tun.get(), raw.data(), raw.size(), MSG_NOSIGNAL);
        break;
      }
      case 1:
      case 2: {
        const Bytes packet = packetFrom(input);
        send(tun.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
        break;
      }
      case 3:
      case 4:
        if (!connections.empty()) {
          const ByteView said = input.take(input.octet());
          Descriptor& connection = connections[what / 7 % connections.size()];
          send(connection.get(), said.data(), said.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
          if (said.empty()) {
            connection.reset();
          }
        }
        break;
      case 5:
        relays->hear(input);
        break;
      default:
        now += std::uint64_t{input.octet()} * 500'000'000;
    }
    for (int turn = 0; turn < 3; ++turn) {
      loop.turn(false);
      for (int accepted = 0; (accepted = accept(proxy.get(), nullptr, nullptr)) >= 0;) {
        connections.emplace_back(accepted);
      }
    }
    for (ssize_t size = 0; (size = recv(tun.get(), written.data(), written.size(), 0)) > 0;) {
      check(ByteView(written).first(static_cast<std::size_t>(size)), areAllRight);
    }
  }
  require(carrier.keptIn().sentences().size() <= KeptIn::maxSentences, "little is told");
  const linger reset{1, 0};  // leaves no port waiting behind
  for (const Descriptor& connection : connections) {
    setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  }
}

std::vector<Bytes> seeds() {
  const Bytes syn{1, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0x50, 2, 0xFF, 0xFF, 0, 0, 0, 0, 0};
  const Bytes ack{1,    1,    0,    0, 0, 2, 0, 0, 0,   9,   0x50,
                  0x10, 0xFF, 0xFF, 0, 0, 0, 0, 3, 'a', 'b', 'c'};
  const Bytes answer{1, 3 | 1 << 4, 0, 0, 0, 8, 0, 0, 0, 2, 0x50, 0x12, 0, 0, 0, 0, 0, 0, 0};
  const Bytes method{3, 2, 5, 0};
  const Bytes connected{3, 10, 5, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  const Bytes refused{3, 10, 5, 5, 0, 1, 0, 0, 0, 0, 0, 0};
  const Bytes name{1, 4, 0, 0, 0, 0, 19, 0, 7, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 'x', 0, 0, 1, 0, 1};
  const Bytes named{3, 21, 0, 19, 0, 1, 0x81, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 'x', 0, 0, 1, 0, 1};
  const Bytes later{6, 20};
  const Bytes datagram{1, 0, 0, 0, 0, 0, 3, 'a', 'b', 'c'};
  const Bytes heard{5, 0x60, 2, 'a', 'b', 8, 8, 19, 136};
  return {
      joined({Bytes{0}, datagram, heard, datagram, Bytes{5, 0, 0}, datagram, heard, later}),
      joined({Bytes{0}, syn, method, connected, answer, ack, later}),
      joined({Bytes{1}, syn, Bytes{3, 2, 5, 2}, Bytes{3, 2, 1, 0}, refused}),
      joined({Bytes{2}, name, method, connected, named, later, name, Bytes{3, 0}, later, later}),
      joined({Bytes{0}, Bytes{0, 20}, Bytes(20, 0x45), syn, Bytes{3, 5, 5, 0, 5, 1, 0}, later})};
}

}  // namespace zk::fuzz
