#include "Loopback/EchoPeer.h"

#include <array>

#include "Loopback/EventLoop.h"
#include "Loopback/KitSocket.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"

namespace zk::loopback {

struct EchoPeer::State {
  State(const std::string& ip, std::uint16_t port) : socket(openBoundUDPSocket(ip, port)) {
    loop.sync([this] { loop.watch(socket, [this] { takeDatagrams(); }); });
  }
  ~State() {
    loop.stop();
    closeSocket(socket);
  }

  void takeDatagrams() {
    while (const auto arrival = takeDatagram(socket, buffer)) {
      ++received;
      lastSource = arrival->from;
      lastPayload.assign(arrival->datagram.begin(), arrival->datagram.end());
      if (echo) {
        sendDatagram(socket, arrival->datagram, arrival->from);
      }
    }
  }

  // Everything belongs to the loop's thread.
  const int socket;
  bool echo = true;
  std::size_t received = 0;
  Bytes lastPayload;
  std::optional<sockaddr_in> lastSource;
  std::array<std::uint8_t, 65536> buffer{};
  EventLoop loop{"kit.echo"};
};

EchoPeer::EchoPeer(const std::string& ip, std::uint16_t port)
    : ip_(ip),
      state_(std::make_unique<State>(ip, port)),
      port_(portNumber(localAddress(state_->socket))) {}

EchoPeer::~EchoPeer() = default;

void EchoPeer::setEcho(bool echo) {
  state_->loop.sync([&] { state_->echo = echo; });
}

std::size_t EchoPeer::received() const {
  std::size_t received = 0;
  state_->loop.sync([&] { received = state_->received; });
  return received;
}

std::optional<Bytes> EchoPeer::lastPayload() const {
  std::optional<Bytes> payload;
  state_->loop.sync([&] {
    if (state_->lastSource) {
      payload = state_->lastPayload;
    }
  });
  return payload;
}

std::optional<sockaddr_in> EchoPeer::lastSource() const {
  std::optional<sockaddr_in> source;
  state_->loop.sync([&] { source = state_->lastSource; });
  return source;
}

bool EchoPeer::send(const sockaddr_in& to, ByteView payload) {
  return sendDatagram(state_->socket, payload, to) >= 0;
}

}  // namespace zk::loopback
