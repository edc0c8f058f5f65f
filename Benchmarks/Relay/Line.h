#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Loopback/DaemonProcess.h"
#include "Loopback/FarSide.h"
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

/// What became of the datagrams that went one way.
struct Seen {
  std::uint64_t sent = 0;
  std::uint64_t lost = 0;
  std::vector<float> delays;  // milliseconds, sorted

  double percentile(double share) const;
  Seen& operator+=(const Seen& other);
};

/// The books of one direction. Any thread.
class Ledger {
 public:
  /// Writes the next number and the time to the beginning of a payload; a marker has no number and
  /// does not count.
  void stamp(std::uint8_t* payload, bool isMarker);
  /// Takes what has arrived.
  void take(ByteView payload);
  /// Begins anew; what was sent before no longer counts.
  void reset();
  Seen seen() const;
  /// Whether a marker has arrived: what was sent before it and is not there will not come.
  bool isMarked() const;

 private:
  mutable std::mutex lock_;
  std::uint32_t run_ = 0;      // guarded by lock_
  std::vector<float> delays_;  // guarded by lock_; by number, negative: not arrived
  std::size_t arrived_ = 0;    // guarded by lock_
  bool marked_ = false;        // guarded by lock_
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
  Seen settle(std::chrono::milliseconds longest);

 private:
  void receive();

  Ledger up_;
  Ledger down_;
  std::mutex lock_;
  sockaddr_in relay_{};  // guarded by lock_; where the daemon's relay sends from
  loopback::TURNClient client_;
  loopback::FarSide far_;
  std::atomic<bool> ending_{false};
  std::thread receiver_;
};

}  // namespace zk::bench
