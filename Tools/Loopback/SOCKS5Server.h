#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "Loopback/SOCKS5Script.h"

namespace zk::loopback {

class SOCKS5Connection;
struct SOCKS5Core;

/// A SOCKS5 proxy (RFC 1928, RFC 1929) for UDP ASSOCIATE over IPv4, all on one thread of its own.
///
/// Each association has one socket towards its client and one towards peers, both bound to the
/// proxy's address: a proxy on 127.0.0.1 cannot reach beyond the loopback. The client's UDP address
/// is the source of its first frame; frames from elsewhere are dropped. An association ends with
/// its control connection.
///
/// Every operation may be called from any thread. Connections are numbered from 0 in the order of
/// accepting, associations from 0 in the order of UDP ASSOCIATE; numbers are never given again.
class SOCKS5Server {
 public:
  /// Listens on `ip`:`port`, 0 meaning any free port. Raises the process's descriptor limit, as an
  /// association costs three. Throws std::system_error.
  explicit SOCKS5Server(SOCKS5Script script = {}, const std::string& ip = "127.0.0.1",
                        std::uint16_t port = 0);
  /// Stops.
  ~SOCKS5Server();

  std::uint16_t port() const { return port_; }

  /// Takes effect on return, for connections and associations that exist already as well.
  void setScript(SOCKS5Script script);

  struct Counts {
    std::size_t connections = 0;      // ever accepted
    std::size_t openConnections = 0;  // now
    std::size_t associations = 0;     // ever made
    std::size_t openAssociations = 0;
    std::uint64_t datagramsToPeers = 0;
  };
  Counts counts() const;

  /// All that the client of connection `number` has sent on it; empty when there was none. At most
  /// the first 64 KiB.
  Bytes controlBytes(std::size_t number) const;
  /// The frames of association `number` since the script asked for recording, oldest first.
  std::vector<Bytes> frames(std::size_t number) const;
  /// Where association `number` sends its frames to: absent before the first frame, and when it is
  /// gone or never was.
  std::optional<Endpoint> clientAddress(std::size_t number) const;

  /// Sends `raw` as it stands, from the relay's own address, to the client of that association.
  void injectToClient(std::size_t number, ByteView raw);

  /// Ends every open control connection, and so its association, with the end of the stream or with
  /// RST. The listener stays.
  void closeControlConnections();
  void resetControlConnections();
  /// Ends every association but leaves the control connections open, as a proxy does that has lost
  /// its state: datagrams to the relay are refused from now on.
  void closeAssociations();
  /// From now on no connection is accepted: new ones are refused. Existing ones live on.
  void closeListener();

  /// Closes everything and ends the thread. May be called again.
  void stop();

 private:
  void acceptAll();
  void endAll(void (SOCKS5Connection::*end)());

  std::unique_ptr<SOCKS5Core> core_;
  std::uint16_t port_ = 0;
};

}  // namespace zk::loopback
