#include "Loopback/SOCKS5Server.h"

#include <sys/socket.h>

#include "Loopback/EventLoop.h"
#include "Loopback/KitSocket.h"
#include "Loopback/SOCKS5Association.h"
#include "Loopback/SOCKS5Connection.h"
#include "Loopback/SOCKS5Core.h"
#include "Platform/IPv4.h"
#include "Platform/Process.h"
#include "Platform/Sockets.h"

namespace zk::loopback {

struct SOCKS5Server::State {
  State(SOCKS5Script script, const std::string& ip, std::uint16_t port)
      : listener(openListener(ip, port)), core{loop, ip, std::move(script)} {
    loop.sync([this] { loop.watch(listener, [this] { acceptAll(); }); });
  }

  void acceptAll() {
    for (;;) {
      const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (socket < 0) {
        return;
      }
      const std::size_t number = core.counts.connections++;
      core.controlBytes.emplace_back();
      const auto connection = std::make_shared<SOCKS5Connection>(core, number, socket);
      core.connections.emplace(number, connection);
      connection->start();
    }
  }

  void closeListener() {
    if (listener >= 0) {
      loop.unwatch(listener);
      closeSocket(listener);
      listener = -1;
    }
  }

  void endAll(void (SOCKS5Connection::*end)()) {
    const auto connections = core.connections;  // which they leave while they end
    for (const auto& [number, connection] : connections) {
      (connection.get()->*end)();
    }
  }

  template <typename T>
  T ask(const std::function<T()>& question) {
    T answer{};
    loop.sync([&] { answer = question(); });
    return answer;
  }

  SOCKS5Association* association(std::size_t number) {
    const auto found = core.associations.find(number);
    return found == core.associations.end() ? nullptr : found->second.get();
  }

  // Everything belongs to the loop's thread.
  EventLoop loop{"kit.socks5"};
  int listener;
  SOCKS5Core core;
};

SOCKS5Server::SOCKS5Server(SOCKS5Script script, const std::string& ip, std::uint16_t port) {
  raiseDescriptorLimit();
  state_ = std::make_unique<State>(std::move(script), ip, port);
  port_ = portNumber(localAddress(state_->listener));
}

SOCKS5Server::~SOCKS5Server() {
  stop();
}

void SOCKS5Server::setScript(SOCKS5Script script) {
  state_->loop.sync([&] { state_->core.script = std::move(script); });
}

SOCKS5Server::Counts SOCKS5Server::counts() const {
  return state_->ask<Counts>([this] {
    Counts counts = state_->core.counts;
    counts.openConnections = state_->core.connections.size();
    counts.openAssociations = state_->core.associations.size();
    return counts;
  });
}

Bytes SOCKS5Server::controlBytes(std::size_t number) const {
  return state_->ask<Bytes>([&] {
    const auto& all = state_->core.controlBytes;
    return number < all.size() ? all[number] : Bytes{};
  });
}

std::vector<Bytes> SOCKS5Server::frames(std::size_t number) const {
  return state_->ask<std::vector<Bytes>>([&] {
    const auto& all = state_->core.frames;
    return number < all.size() ? all[number] : std::vector<Bytes>{};
  });
}

std::optional<sockaddr_in> SOCKS5Server::clientAddress(std::size_t number) const {
  return state_->ask<std::optional<sockaddr_in>>([&]() -> std::optional<sockaddr_in> {
    const auto* association = state_->association(number);
    return association == nullptr ? std::nullopt : association->client();
  });
}

std::optional<sockaddr_in> SOCKS5Server::egressAddress(std::size_t number) const {
  return state_->ask<std::optional<sockaddr_in>>([&]() -> std::optional<sockaddr_in> {
    const auto* association = state_->association(number);
    return association == nullptr ? std::nullopt : std::optional(association->egressAddress());
  });
}

std::size_t SOCKS5Server::injectToClients(ByteView raw) {
  return state_->ask<std::size_t>([&] {
    std::size_t sent = 0;
    for (const auto& [number, association] : state_->core.associations) {
      sent += association->sendToClient(raw) ? 1 : 0;
    }
    return sent;
  });
}

std::size_t SOCKS5Server::injectToClient(std::size_t number, ByteView raw) {
  return state_->ask<std::size_t>([&]() -> std::size_t {
    auto* association = state_->association(number);
    return association != nullptr && association->sendToClient(raw) ? 1 : 0;
  });
}

void SOCKS5Server::closeControlConnections() {
  state_->loop.sync([this] { state_->endAll(&SOCKS5Connection::end); });
}

void SOCKS5Server::resetControlConnections() {
  state_->loop.sync([this] { state_->endAll(&SOCKS5Connection::reset); });
}

void SOCKS5Server::closeAssociations() {
  state_->loop.sync([this] { state_->core.associations.clear(); });
}

void SOCKS5Server::closeListener() {
  state_->loop.sync([this] { state_->closeListener(); });
}

void SOCKS5Server::stop() {
  state_->loop.sync([this] {
    state_->closeListener();
    state_->endAll(&SOCKS5Connection::end);
  });
  state_->loop.stop();
}

}  // namespace zk::loopback
