#include "Loopback/EchoPeer.h"

namespace zk::loopback {

void EchoPeer::take(const Arrival& arrival) {
  ++received_;
  lastSource_ = arrival.from;
  lastPayload_.emplace(arrival.datagram.begin(), arrival.datagram.end());
  if (echo_) {
    service_.socket().send(arrival.datagram, arrival.from);
  }
}

void EchoPeer::setEcho(bool echo) {
  service_.thread().sync([&] { echo_ = echo; });
}

std::size_t EchoPeer::received() const {
  return service_.thread().ask([&] { return received_; });
}

std::optional<Bytes> EchoPeer::lastPayload() const {
  return service_.thread().ask([&] { return lastPayload_; });
}

std::optional<Endpoint> EchoPeer::lastSource() const {
  return service_.thread().ask([&] { return lastSource_; });
}

}  // namespace zk::loopback
