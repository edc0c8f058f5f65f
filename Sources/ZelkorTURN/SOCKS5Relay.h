#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>

#include "Platform/Datagrams.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// The relay behind one allocation: a control connection with its UDP association, and a UDP socket
/// through which every peer datagram travels wrapped to and from the proxy. Its public face is the
/// proxy's egress address.
///
/// Held by shared pointers: the receive thread keeps the relay alive while it runs. Destruction
/// releases memory only; close() releases the sockets.
class SOCKS5Relay final : public TURNRelay, public std::enable_shared_from_this<SOCKS5Relay> {
 public:
  /// No credentials are offered unless both are present. No I/O.
  SOCKS5Relay(std::string proxyHost, std::int64_t proxyPort, std::optional<std::string> username,
              std::optional<std::string> password);

  /// Seconds, the time limit given to the control connection. Set by the owner before opening.
  double connectTimeout = 10.0;

  /// Connects, asks for the association and finds the egress address. Blocks meanwhile. Returns
  /// that address with the UDP port that the proxy assigned. Throws SOCKS5Error, with everything
  /// released, and with a relay that was open already left as it is.
  RelayedAddress open();

  RelayedAddress allocateRelay() override { return open(); }
  /// Any thread. Throws SOCKS5Error when the relay is not open or the system refuses a datagram;
  /// the relay stays usable.
  void sendAll(std::span<const PeerDatagram> datagrams) override;
  /// Does nothing unless the relay is open.
  void receive(Handler handler) override;
  /// Waits for the receive thread to end. Idempotent. Not from the handler.
  void close() override;

 private:
  void receiveLoop(DatagramReceiver& receiver, const Handler& handler);
  bool receiveBurst(int fd, DatagramReceiver& receiver, std::vector<PeerDatagram>& burst) const;

  const std::string proxyHost_;
  const std::int64_t proxyPort_;
  const std::optional<std::string> username_;
  const std::optional<std::string> password_;

  // Guards everything below, but for reading udpFD_ and, behind that, relayAddr_. Held to copy
  // fields and to start the thread, never across a call on the socket or a callback.
  std::mutex lock_;
  std::unique_ptr<SOCKS5Control> control_;  // present while the relay is open
  sockaddr_in relayAddr_{};     // where every datagram goes: the proxy's UDP relay; set once
  std::atomic<int> udpFD_{-1};  // -1 before open(), where it follows relayAddr_, and after close()
  bool isClosed_ = false;
  std::thread receiveThread_;
};

}  // namespace zk
