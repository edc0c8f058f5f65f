#include "Flood.h"

#include <array>
#include <stdexcept>

#include <sys/socket.h>

#include "Loopback/KitSocket.h"
#include "Loopback/SOCKS5Frame.h"
#include "Loopback/TURNClient.h"

namespace zk::bench {
namespace {

constexpr unsigned perBurst = 30;
constexpr std::size_t payload = 200;
constexpr int patience = 20;  // times the limit on a receive

// A request that bears a nonce of the server's and a signature by that password. Refresh, as it is
// answered at once for a client without an allocation.
Bytes signedRequest(std::uint16_t port, const std::string& password) {
  loopback::TURNClient stranger(port, {"alice", password});
  const TURNMessage request = stranger.makeRequest(TURNMethod::refresh);
  stranger.authenticatedRequest(request);  // for the nonce of the challenge
  TURNMessage whole = request;
  stranger.sign(whole);
  return whole.encode();
}

}  // namespace

bool spoil(std::span<std::uint8_t> datagram, const Endpoint&) {
  if (datagram.size() == loopback::socks5HeaderSize + spoiledSize) {
    datagram[3] = 0x7F;  // the address type
  }
  return true;
}

std::vector<FloodKind> badInput(const Contestant& daemon) {
  using enum FloodKind::Path;
  Bytes noProtocol(payload, 0x80);
  TURNMessage whole(TURNMethod::send, TURNClass::indication, {});
  whole.append(TURNAttr::data, Bytes(payload));
  Bytes cut = whole.encode();
  cut.pop_back();
  Bytes badLength = whole.encode();
  badLength[TURNMessage::headerSize + 2] = 0xFF;  // an attribute longer than the message
  Bytes noChannel(4 + payload);
  writeUInt16(&noChannel[0], 0x7FFE);
  writeUInt16(&noChannel[2], payload);
  return {{"octets of no protocol", std::move(noProtocol), dropped},
          {"STUN messages cut short", std::move(cut), dropped},
          {"STUN messages with a wrong attribute length", std::move(badLength), dropped},
          {"Send indications without a peer", whole.encode(), dropped},
          {"ChannelData on no channel", std::move(noChannel), dropped},
          {"frames of an unknown address type, from the proxy",
           daemon.legs()[0].frame(Bytes(spoiledSize)), byProxy},
          {"requests without credentials",
           TURNMessage(TURNMethod::refresh, TURNClass::request, {}).encode(), request},
          {"requests with a wrong signature", signedRequest(daemon.port(), "guess"), request}};
}

std::uint64_t flood(const Contestant& daemon, const FloodKind& kind, std::uint64_t count) {
  const loopback::CallLeg& channel = daemon.legs()[0];
  const Bytes good = channel.frame(Bytes(payload));
  const bool byProxy = kind.path == FloodKind::Path::byProxy;
  loopback::setBlocking(channel.socket, std::chrono::milliseconds(200));
  const auto stranger = loopback::KitSocket::boundUDP();
  stranger.connectTo(loopback::localEndpoint(daemon.port()));
  std::array<std::uint8_t, 65536> buffer;
  std::uint64_t datagrams = 0;
  for (std::uint64_t sent = 0; sent < count; sent += perBurst) {
    for (unsigned i = 0; i < perBurst; ++i) {
      send(byProxy ? channel.socket : stranger.get(), kind.datagram.data(), kind.datagram.size(),
           0);
    }
    send(channel.socket, good.data(), good.size(), 0);
    for (int tries = 0; recv(channel.socket, buffer.data(), buffer.size(), 0) < 0; ++tries) {
      if (tries == patience) {
        throw std::runtime_error("a datagram was lost in a flood of " + kind.name);
      }
    }
    while (stranger.receive(buffer)) {
    }
    // What the proxy is to spoil has come to it through the daemon.
    datagrams += (byProxy ? 2 : 1) * perBurst + 2;
  }
  return datagrams;
}

}  // namespace zk::bench
