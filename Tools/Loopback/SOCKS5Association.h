#pragma once

#include <cstddef>
#include <optional>

#include "Base/Bytes.h"
#include "Loopback/SOCKS5Core.h"

namespace zk::loopback {

/// One UDP association of the kit's proxy: a socket towards the client and one towards peers. The
/// loop's thread only.
class SOCKS5Association {
 public:
  /// Opens and watches the sockets. Throws std::system_error.
  SOCKS5Association(SOCKS5Core& core, std::size_t number);

  /// Where the client sends to.
  Endpoint relayAddress() const { return relaySocket_.localAddress(); }
  const std::optional<Endpoint>& client() const { return client_; }

  /// One raw datagram to the client, at once, if the client is known.
  void sendToClient(ByteView raw);

 private:
  void takeFrames();
  void handleFrame(ByteView frame);
  void answer(ByteView raw);
  void takeAnswers();

  SOCKS5Core& core_;
  const std::size_t number_;
  const KitSocket relaySocket_;
  const KitSocket peerSocket_;
  std::optional<Endpoint> client_;
  const Watch frames_{core_.loop, relaySocket_.get(), [this] { takeFrames(); }};
  const Watch answers_{core_.loop, peerSocket_.get(), [this] { takeAnswers(); }};
};

}  // namespace zk::loopback
