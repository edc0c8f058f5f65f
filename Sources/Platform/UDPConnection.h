#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Bytes.h"
#include "Platform/SerialQueue.h"

namespace zk {

/// A UDP socket connected to one endpoint that does its waiting elsewhere: every handler is called
/// on the queue that it was started with. An error is the system's text; absent means none.
class UDPConnection {
 public:
  using Error = std::optional<std::string>;
  enum class State { ready, failed };
  using StateHandler = std::function<void(State, const Error&)>;
  using SendHandler = std::function<void(const Error&)>;
  using ReceiveHandler = std::function<void(const std::optional<Bytes>&, const Error&)>;

  UDPConnection(std::string host, std::uint16_t port);
  /// Cancels.
  ~UDPConnection();
  UDPConnection(const UDPConnection&) = delete;
  UDPConnection& operator=(const UDPConnection&) = delete;

  /// Resolves and connects on `queue`, then reports `ready` or `failed`. Once.
  void start(std::shared_ptr<SerialQueue> queue, StateHandler handler);
  /// Sends one datagram. Once ready.
  void send(Bytes datagram, SendHandler completion);
  /// Waits for one datagram on a thread of its own. Once.
  void receive(ReceiveHandler handler);
  /// Wakes a waiting receive, whose handler then gets an error, and closes the socket. May be
  /// called again. Not while holding a lock that a handler takes.
  void cancel();

 private:
  struct Shared;
  const std::shared_ptr<Shared> shared_;
};

}  // namespace zk
