#include "Loopback/SOCKS5Server.h"

#include "Loopback/SOCKS5Association.h"
#include "Loopback/SOCKS5Connection.h"
#include "Loopback/SOCKS5Core.h"
#include "Platform/Process.h"

namespace zk::loopback {

SOCKS5Server::SOCKS5Server(SOCKS5Script script, const std::string& ip, std::uint16_t port)
    : core_(std::make_unique<SOCKS5Core>(ip, port, std::move(script))),
      port_(core_->listener.port()) {
  raiseDescriptorLimit();
  core_->thread.sync([this] {
    core_->accepting.emplace(core_->loop, core_->listener.get(), [this] { acceptAll(); });
  });
}

SOCKS5Server::~SOCKS5Server() {
  stop();
}

void SOCKS5Server::acceptAll() {
  for (;;) {
    KitSocket socket = core_->listener.accepted();
    if (!socket) {
      return;
    }
    const std::size_t number = core_->counts.connections++;
    core_->controlBytes.emplace_back();
    const auto connection = std::make_shared<SOCKS5Connection>(*core_, number, std::move(socket));
    core_->connections.emplace(number, connection);
    connection->start();
  }
}

void SOCKS5Server::setScript(SOCKS5Script script) {
  core_->thread.sync([&] { core_->script = std::move(script); });
}

SOCKS5Server::Counts SOCKS5Server::counts() const {
  return core_->thread.ask([&] {
    Counts counts = core_->counts;
    counts.openConnections = core_->connections.size();
    counts.openAssociations = core_->associations.size();
    return counts;
  });
}

Bytes SOCKS5Server::controlBytes(std::size_t number) const {
  return core_->thread.ask(
      [&] { return number < core_->controlBytes.size() ? core_->controlBytes[number] : Bytes{}; });
}

std::vector<Bytes> SOCKS5Server::frames(std::size_t number) const {
  return core_->thread.ask(
      [&] { return number < core_->frames.size() ? core_->frames[number] : std::vector<Bytes>{}; });
}

std::optional<Endpoint> SOCKS5Server::clientAddress(std::size_t number) const {
  return core_->thread.ask([&] {
    const auto* association = core_->association(number);
    return association == nullptr ? std::nullopt : association->client();
  });
}

void SOCKS5Server::injectToClient(std::size_t number, ByteView raw) {
  core_->thread.sync([&] {
    if (auto* const association = core_->association(number)) {
      association->sendToClient(raw);
    }
  });
}

void SOCKS5Server::endAll(void (SOCKS5Connection::*end)()) {
  core_->thread.sync([&] {
    const auto connections = core_->connections;  // which they leave while they end
    for (const auto& [number, connection] : connections) {
      (connection.get()->*end)();
    }
  });
}

void SOCKS5Server::closeControlConnections() {
  endAll(&SOCKS5Connection::end);
}

void SOCKS5Server::resetControlConnections() {
  endAll(&SOCKS5Connection::reset);
}

void SOCKS5Server::closeAssociations() {
  core_->thread.sync([this] { core_->associations.clear(); });
}

void SOCKS5Server::closeListener() {
  core_->thread.sync([this] {
    core_->accepting.reset();
    core_->listener.reset();
  });
}

void SOCKS5Server::stop() {
  closeListener();
  closeControlConnections();
  core_->thread.stop();
}

}  // namespace zk::loopback
