#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Base/Bytes.h"
#include "Loopback/DatagramService.h"

namespace zk::loopback {

/// A UDP peer, on a thread of its own, that sends every datagram back to where it came from. Any
/// thread.
class EchoPeer {
 public:
  /// Binds `ip`:`port`, 0 meaning any free port. Throws std::system_error.
  explicit EchoPeer(const std::string& ip = "127.0.0.1", std::uint16_t port = 0)
      : service_("kit.echo", ip, port, [this](const Arrival& arrival) { take(arrival); }) {}

  const Endpoint& endpoint() const { return service_.endpoint(); }
  std::string ip() const { return endpoint().ip(); }
  std::uint16_t port() const { return endpoint().port; }

  /// Whether datagrams are sent back (the default) or only counted.
  void setEcho(bool echo) {
    service_.thread().sync([&] { echo_ = echo; });
  }
  /// Datagrams that have arrived.
  std::size_t received() const {
    return service_.thread().ask([&] { return received_; });
  }
  /// Where the latest of them came from; absent before the first.
  std::optional<Endpoint> lastSource() const {
    return service_.thread().ask([&] { return lastSource_; });
  }
  /// Sends a datagram of its own accord. Whether the system took it.
  bool send(const Endpoint& to, ByteView payload) { return service_.socket().send(payload, to); }

 private:
  void take(const Arrival& arrival) {
    ++received_;
    lastSource_ = arrival.from;
    if (echo_) {
      service_.socket().send(arrival.datagram, arrival.from);
    }
  }

  // These belong to the service's thread.
  bool echo_ = true;
  std::size_t received_ = 0;
  std::optional<Endpoint> lastSource_;
  DatagramService service_;
};

}  // namespace zk::loopback
