#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "FarSide.h"
#include "Loopback/DaemonProcess.h"
#include "Loopback/Load.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/TURNClient.h"

namespace zk::bench {

/// Calls `action` so many times every millisecond, for `duration`; what it is late with it makes
/// up.
void pace(std::chrono::milliseconds duration, unsigned perMillisecond,
          const std::function<void()>& action);

/// A daemon and the proxy that all its clients go through.
struct World {
  /// With `withSTUN` the daemon is told a STUN server, else it looks up the names it knows.
  explicit World(const std::string& binary, bool withSTUN = true);

  loopback::STUNResponder stun;
  /// As the daemon's configuration expects it: it asks for a login.
  const loopback::SOCKS5Script script{.login = loopback::SOCKS5Login{"user", "password"}};
  loopback::SOCKS5Server proxy{script};
  loopback::DaemonProcess daemon;
  std::uint16_t port;
};

/// A ledger for any thread.
class SharedLedger {
 public:
  void stamp(std::uint8_t* payload, bool isMarker);
  void take(ByteView payload);
  bool isMarked() const;
  loopback::LoadResult close();

 private:
  mutable std::mutex lock_;
  loopback::Ledger ledger_;  // guarded by lock_
};

/// A client with a channel through the daemon to a far side of its own, at which all ends that it
/// sends. What others do to the proxy does not touch that far side.
class Line {
 public:
  /// The far side's socket is at `farIP`. Throws std::runtime_error when there is no relay.
  explicit Line(World& world, loopback::KitSocket far = loopback::KitSocket::boundUDP(),
                const std::string& farIP = "127.0.0.1");
  ~Line();
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  /// One datagram to the far side, or from there. One thread at a time each.
  void sendUp(std::size_t payload, bool isMarker = false);
  void sendDown(std::size_t payload, bool isMarker = false);

  /// One each way every millisecond, for so long.
  void talk(std::chrono::milliseconds duration);
  /// Waits until all has arrived that will, but not longer than `longest`. What was seen in both
  /// directions since the last time.
  loopback::LoadResult settle(std::chrono::milliseconds longest);

 private:
  void receive();

  SharedLedger up_;
  SharedLedger down_;
  std::mutex lock_;
  Endpoint relay_;  // guarded by lock_; where the daemon's relay sends from
  loopback::TURNClient client_;
  FarSide far_;
  std::atomic<bool> ending_{false};
  std::thread receiver_;
};

}  // namespace zk::bench
