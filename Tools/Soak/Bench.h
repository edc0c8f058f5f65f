#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"

namespace zk::soak {

/// Gives this process and its children a /tmp of their own in memory, where the logs of full rate,
/// gigabytes of them, harm nobody; they are cut back while this lives. Without root the logs are
/// the machine's own and grow. Before any thread is started.
class LogKeeper {
 public:
  LogKeeper();
  ~LogKeeper();
  LogKeeper(const LogKeeper&) = delete;
  LogKeeper& operator=(const LogKeeper&) = delete;

  bool isPrivate() const { return private_; }
  /// Starts cutting.
  void begin();

 private:
  struct State;
  bool private_ = false;
  std::unique_ptr<State> state_;
};

/// What the daemon holds.
struct Holdings {
  std::size_t kilobytes = 0;
  std::size_t descriptors = 0;
  std::size_t threads = 0;
};

/// The proxy, the STUN server, the peer, and a daemon that was started with room for 1024
/// descriptors.
class Bench {
 public:
  Bench();

  std::uint16_t port() const { return port_; }
  loopback::DaemonProcess& daemon() { return *daemon_; }
  const loopback::EchoPeer& peer() const { return peer_; }
  Holdings holdings() const;
  /// The same when it has stopped changing.
  Holdings settledHoldings() const;

 private:
  loopback::STUNResponder stun_;
  loopback::SOCKS5Server proxy_;
  loopback::EchoPeer peer_;
  std::unique_ptr<loopback::DaemonProcess> daemon_;
  std::uint16_t port_ = 0;
};

}  // namespace zk::soak
