#include "Loopback/EchoPeer.h"

#include "Base/IPv4.h"

namespace zk::loopback {

EchoPeer::EchoPeer(const std::string& ip, std::uint16_t port)
    : ip_(ip), socket_(KitSocket::boundUDP(ip, port)), port_(portNumber(socket_.localAddress())) {
  loop_.sync([this] { loop_.watch(socket_.get(), [this] { takeDatagrams(); }); });
}

void EchoPeer::takeDatagrams() {
  while (const auto arrival = socket_.receive(buffer_)) {
    ++received_;
    lastSource_ = arrival->from;
    lastPayload_.emplace(arrival->datagram.begin(), arrival->datagram.end());
    if (echo_) {
      socket_.send(arrival->datagram, arrival->from);
    }
  }
}

void EchoPeer::setEcho(bool echo) {
  loop_.sync([&] { echo_ = echo; });
}

std::size_t EchoPeer::received() const {
  return loop_.ask([&] { return received_; });
}

std::optional<Bytes> EchoPeer::lastPayload() const {
  return loop_.ask([&] { return lastPayload_; });
}

std::optional<sockaddr_in> EchoPeer::lastSource() const {
  return loop_.ask([&] { return lastSource_; });
}

}  // namespace zk::loopback
