#include "Flood.h"

#include <array>
#include <stdexcept>

#include <sys/socket.h>

#include "FarSide.h"
#include "Loopback/TURNClient.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"

namespace zk::bench {
namespace {

constexpr unsigned perBurst = 30;
constexpr std::size_t payload = 200;
constexpr int patience = 20;  // times the limit that the load has set on the socket

std::uint16_t serverPort(const Contestant& daemon) {
  sockaddr_in server{};
  socklen_t length = sizeof server;
  getpeername(daemon.endpoints()[0].socket, reinterpret_cast<sockaddr*>(&server), &length);
  return portNumber(server);
}

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
  return {
      {"octets of no protocol", std::move(noProtocol), dropped},
      {"STUN messages cut short", std::move(cut), dropped},
      {"STUN messages with a wrong attribute length", std::move(badLength), dropped},
      {"Send indications without a peer", whole.encode(), dropped},
      {"ChannelData on no channel", std::move(noChannel), dropped},
      {"frames of an unknown address type, from the proxy",
       daemon.endpoints()[0].frame(FarSide::spoiledSize), byProxy},
      {"requests without credentials",
       TURNMessage(TURNMethod::refresh, TURNClass::request, {}).encode(), answered},
      {"requests with a wrong signature", signedRequest(serverPort(daemon), "guess"), answered}};
}

FloodKind goodRequest(const Contestant& daemon) {
  return {"requests with a right signature",
          signedRequest(serverPort(daemon), loopback::TURNCredentials().password),
          FloodKind::Path::answered};
}

std::uint64_t flood(const Contestant& daemon, const FloodKind& kind, std::uint64_t count) {
  const Endpoint& channel = daemon.endpoints()[0];
  const Bytes good = channel.frame(payload);
  const bool byProxy = kind.path == FloodKind::Path::byProxy;
  const int stranger = openUDPSocket();
  const sockaddr_in server = socketAddress("127.0.0.1", serverPort(daemon));
  connect(stranger, reinterpret_cast<const sockaddr*>(&server), sizeof server);
  std::array<std::uint8_t, 65536> buffer;
  std::uint64_t datagrams = 0;
  for (std::uint64_t sent = 0; sent < count; sent += perBurst) {
    for (unsigned i = 0; i < perBurst; ++i) {
      send(byProxy ? channel.socket : stranger, kind.datagram.data(), kind.datagram.size(), 0);
    }
    send(channel.socket, good.data(), good.size(), 0);
    for (int tries = 0; recv(channel.socket, buffer.data(), buffer.size(), 0) < 0; ++tries) {
      if (tries == patience) {
        closeSocket(stranger);
        throw std::runtime_error("a datagram was lost in a flood of " + kind.name);
      }
    }
    while (recv(stranger, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
    // What the proxy is to spoil has come to it through the daemon.
    datagrams += (byProxy ? 2 : 1) * perBurst + 2;
  }
  closeSocket(stranger);
  return datagrams;
}

}  // namespace zk::bench
