#include "Loopback/SOCKS5Association.h"

#include "Loopback/KitSocket.h"
#include "Loopback/SOCKS5Frame.h"
#include "Platform/Sockets.h"

namespace zk::loopback {
namespace {

// How many datagrams are taken from one socket before the others have their turn.
constexpr int batch = 64;

bool sameEndpoint(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

int openOrClose(const std::string& ip, int closeOnFailure) {
  try {
    return openBoundUDPSocket(ip, 0);
  } catch (...) {
    closeSocket(closeOnFailure);
    throw;
  }
}

}  // namespace

SOCKS5Association::SOCKS5Association(SOCKS5Core& core, std::size_t number)
    : core_(core),
      number_(number),
      relaySocket_(openBoundUDPSocket(core.ip, 0)),
      peerSocket_(openOrClose(core.ip, relaySocket_)) {
  core_.loop.watch(relaySocket_, [this] { takeFrames(); });
  core_.loop.watch(peerSocket_, [this] { takeAnswers(); });
}

SOCKS5Association::~SOCKS5Association() {
  for (const int socket : {relaySocket_, peerSocket_}) {
    core_.loop.unwatch(socket);
    closeSocket(socket);
  }
}

sockaddr_in SOCKS5Association::relayAddress() const {
  return localAddress(relaySocket_);
}
sockaddr_in SOCKS5Association::egressAddress() const {
  return localAddress(peerSocket_);
}

bool SOCKS5Association::sendToClient(ByteView raw) {
  if (!client_) {
    return false;
  }
  const bool sent = sendDatagram(relaySocket_, raw, *client_) >= 0;
  ++(sent ? core_.counts.framesToClients : core_.counts.dropped);
  return sent;
}

void SOCKS5Association::takeFrames() {
  for (int i = 0; i < batch; ++i) {
    const auto arrival = takeDatagram(relaySocket_, core_.buffer);
    if (!arrival) {
      return;
    }
    ++core_.counts.framesFromClients;
    if (core_.script.recordFrames) {
      core_.frames[number_].emplace_back(arrival->datagram.begin(), arrival->datagram.end());
    }
    if (!client_) {
      client_ = arrival->from;
    }
    if (sameEndpoint(*client_, arrival->from)) {
      handleFrame(arrival->datagram);
    } else {
      ++core_.counts.dropped;
    }
  }
}

void SOCKS5Association::handleFrame(ByteView frame) {
  using Relay = SOCKS5Script::Relay;
  const Relay mode = core_.script.relay;
  const auto content = socks5Unframe(frame);
  if (mode == Relay::garbage) {
    for (const Bytes& datagram : core_.script.garbage) {
      sendToClient(datagram);
    }
  } else if (!content || mode == Relay::dropAll ||
             (mode == Relay::dropNonSTUN && !looksLikeSTUN(content->payload))) {
    ++core_.counts.dropped;
  } else if (mode == Relay::reflect && !looksLikeSTUN(content->payload)) {
    sendToClient(frame);
  } else {
    forward(content->payload, content->destination);
  }
}

void SOCKS5Association::forward(ByteView payload, const sockaddr_in& to) {
  const bool sent = sendDatagram(peerSocket_, payload, to) >= 0;
  ++(sent ? core_.counts.datagramsToPeers : core_.counts.dropped);
}

void SOCKS5Association::takeAnswers() {
  const std::span<std::uint8_t> room(core_.buffer);
  for (int i = 0; i < batch; ++i) {
    // The header goes in front of where the datagram arrives, so that nothing is copied.
    const auto arrival = takeDatagram(peerSocket_, room.subspan(socks5HeaderSize));
    if (!arrival) {
      return;
    }
    ++core_.counts.datagramsFromPeers;
    writeSOCKS5Header(room.data(), arrival->from);
    sendToClient(room.first(socks5HeaderSize + arrival->datagram.size()));
  }
}

}  // namespace zk::loopback
