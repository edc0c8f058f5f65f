#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "Loopback/KitSocket.h"
#include "Loopback/LoopThread.h"

namespace zk::loopback {

/// A UDP socket on a thread of its own, which hands every datagram to one function.
class DatagramService {
 public:
  using Handler = std::function<void(const Arrival& arrival)>;

  /// Binds `ip`:`port`, 0 meaning any free port. `take` runs on the thread named `label`, from now
  /// on. Throws std::system_error.
  DatagramService(const std::string& label, const std::string& ip, std::uint16_t port, Handler take)
      : socket_(KitSocket::boundUDP(ip, port)), take_(std::move(take)), thread_(label) {
    thread_.sync([this] {
      watch_.emplace(thread_.loop(), socket_.get(), [this] {
        while (const auto arrival = socket_.receive(buffer_)) {
          take_(*arrival);
        }
      });
    });
  }
  ~DatagramService() { thread_.stop(); }

  const KitSocket& socket() const { return socket_; }
  const Endpoint& endpoint() const { return endpoint_; }
  LoopThread& thread() { return thread_; }
  const LoopThread& thread() const { return thread_; }

 private:
  const KitSocket socket_;
  const Endpoint endpoint_ = socket_.localAddress();
  const Handler take_;
  std::array<std::uint8_t, 65536> buffer_{};  // the thread's, as is the watch
  LoopThread thread_;
  std::optional<Watch> watch_;
};

}  // namespace zk::loopback
