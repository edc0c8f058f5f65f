#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "Base/Bytes.h"
#include "Loopback/SOCKS5Core.h"

namespace zk::loopback {

/// One control connection of the kit's proxy: the conversation of RFC 1928 and RFC 1929, played by
/// the script. The loop's thread only.
class SOCKS5Connection : public std::enable_shared_from_this<SOCKS5Connection> {
 public:
  /// `socket` is non-blocking.
  SOCKS5Connection(SOCKS5Core& core, std::size_t number, KitSocket socket);

  void start();
  /// Leaves the proxy's books, which destroys this object unless the caller holds on to it.
  void end();
  /// The same, with RST instead of the end of the stream.
  void reset();

 private:
  enum class Phase { greeting, login, request, done };

  void takeOctets();
  void converse();
  std::optional<std::size_t> lengthOfMessage() const;
  void handleGreeting(ByteView message);
  void handleLogin(ByteView message);
  void handleRequest(ByteView message);
  Bytes associate();
  void connect(const Endpoint& to);

  void perform(const SOCKS5Step& step, Bytes answer, bool closeBehind);
  void later(std::chrono::milliseconds delay, std::function<void()> action);
  void dribble(std::chrono::milliseconds pace, Bytes answer, bool closeBehind);
  void answered(bool closeBehind);

  SOCKS5Core& core_;
  const std::size_t number_;
  const KitSocket socket_;
  std::optional<Watch> watch_;
  Phase phase_ = Phase::greeting;
  bool answering_ = false;  // a delayed or dribbling answer is under way
  bool mute_ = false;
  bool ended_ = false;
  Bytes unread_;  // arrived and not yet taken as a message
  std::optional<std::size_t> association_;
  KitSocket far_;                       // that a CONNECT has led to, until it is answered
  std::optional<StreamBridge> tunnel_;  // from then on
};

}  // namespace zk::loopback
