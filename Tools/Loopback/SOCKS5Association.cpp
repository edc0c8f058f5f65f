#include "Loopback/SOCKS5Association.h"

#include "Loopback/SOCKS5Frame.h"

namespace zk::loopback {
namespace {

// How many datagrams are taken from one socket before the others have their turn.
constexpr int batch = 64;

}  // namespace

SOCKS5Association::SOCKS5Association(SOCKS5Core& core, std::size_t number)
    : core_(core),
      number_(number),
      relaySocket_(KitSocket::boundUDP(core.ip)),
      peerSocket_(KitSocket::boundUDP(core.ip)) {}

void SOCKS5Association::sendToClient(ByteView raw) {
  if (client_) {
    relaySocket_.send(raw, *client_);
  }
}

/// From as far away as the script says.
void SOCKS5Association::answer(ByteView raw) {
  if (core_.script.distance.count() == 0) {
    sendToClient(raw);
    return;
  }
  core_.loop.after(core_.script.distance,
                   [&core = core_, number = number_, copy = Bytes(raw.begin(), raw.end())] {
                     if (auto* const association = core.association(number)) {
                       association->sendToClient(copy);
                     }
                   });
}

void SOCKS5Association::takeFrames() {
  for (int i = 0; i < batch; ++i) {
    const auto arrival = relaySocket_.receive(core_.buffer);
    if (!arrival) {
      return;
    }
    if (core_.script.recordFrames) {
      core_.frames[number_].emplace_back(arrival->datagram.begin(), arrival->datagram.end());
    }
    if (!client_) {
      client_ = arrival->from;
    }
    if (*client_ == arrival->from) {
      handleFrame(arrival->datagram);
    }
  }
}

void SOCKS5Association::handleFrame(ByteView frame) {
  using Relay = SOCKS5Script::Relay;
  const Relay mode = core_.script.relay;
  const auto content = socks5Unframe(frame);
  if (mode == Relay::garbage) {
    for (const Bytes& datagram : core_.script.garbage) {
      answer(datagram);
    }
  } else if (!content || mode == Relay::dropAll) {
    return;
  } else if (mode == Relay::reflect && !looksLikeSTUN(content->payload)) {
    answer(frame);
  } else if (peerSocket_.send(content->payload, content->destination)) {
    ++core_.counts.datagramsToPeers;
  }
}

void SOCKS5Association::takeAnswers() {
  const std::span<std::uint8_t> room(core_.buffer);
  for (int i = 0; i < batch; ++i) {
    // The header goes in front of where the datagram arrives, so that nothing is copied.
    const auto arrival = peerSocket_.receive(room.subspan(socks5HeaderSize));
    if (!arrival) {
      return;
    }
    writeSOCKS5Header(room.data(), arrival->from);
    answer(room.first(socks5HeaderSize + arrival->datagram.size()));
  }
}

}  // namespace zk::loopback
