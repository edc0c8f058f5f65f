#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Base/Bytes.h"
#include "Platform/DatagramSocket.h"
#include "Platform/Sockets.h"

namespace zk {

/// A UDP socket of its own towards the relay of an association, for whoever tries out a proxy. It
/// hears nobody but the relay. One thread.
class ProbeSocket {
 public:
  /// Pinned to `interface` if there is one. Throws SOCKS5Error.
  explicit ProbeSocket(const sockaddr_in& relay, std::optional<unsigned> interface = std::nullopt);

  /// Sends `payload` to ip:port through the relay. Throws SOCKS5Error.
  void send(ByteView payload, std::string_view ip, std::uint16_t port);
  /// The next datagram of the relay, with its header; absent when none comes until the deadline.
  /// Throws SOCKS5Error.
  std::optional<Bytes> receive(Deadline deadline);

 private:
  const sockaddr_in relay_;
  DatagramSocket socket_;
};

/// One STUN Binding transaction through an existing SOCKS5 UDP relay.
namespace ProbeRelay {

/// Asks the STUN server at `stunIP` (four octets) through the relay which address it sees, over a
/// UDP socket that is not pinned. Blocks for `timeout` seconds at most; the first datagram of the
/// relay decides. "address:port"; throws SOCKS5Error.
std::string sendSTUN(const sockaddr_in& relay, ByteView stunIP, std::uint16_t stunPort,
                     double timeout);

}  // namespace ProbeRelay

/// A self-contained check of a proxy. An entry point for users of the module; the daemon's own
/// relays do their own asking.
namespace SOCKS5Probe {

/// Exactly one of the two texts is present.
struct Outcome {
  bool supportsUDPAssociate = false;    // connect, handshake, association and STUN all worked
  std::optional<std::string> egressIP;  // "address:port" that the STUN server saw
  std::optional<std::string> errorDescription;  // why not
};

/// Connects to the proxy, asks for an association, and sends one Binding request through it. Blocks
/// meanwhile; never throws. `timeout` in seconds, for each connection attempt, each read and the
/// transaction.
Outcome probe(const std::string& host, std::int64_t port,
              const std::optional<std::string>& username,
              const std::optional<std::string>& password, ByteView stunIP, std::uint16_t stunPort,
              double timeout);

}  // namespace SOCKS5Probe
}  // namespace zk
