#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/ByteStreamPair.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"

namespace zk {

/// The client side of one SOCKS5 control connection (RFC 1928, RFC 1929): TCP to the proxy, method
/// negotiation, one UDP ASSOCIATE. The proxy ends the association when this connection closes, so
/// the object is kept for as long as the association is used.
///
/// Every operation blocks its caller, within the time limit. One thread at a time.
class SOCKS5Control {
 public:
  /// `timeout`: seconds, the bound of each connection attempt and of each read. Credentials are
  /// offered only when both are present; empty ones count as present. No I/O.
  SOCKS5Control(std::string host, std::int64_t port, std::optional<std::string> username,
                std::optional<std::string> password, double timeout);

  /// Resolves the proxy and connects to the first of its addresses that answers. IPv4 sockets are
  /// pinned as InterfaceScope decides for the configured host with `viaDefault` as the override.
  /// Throws SOCKS5Error, and leaves nothing open then.
  void connect(std::optional<bool> viaDefault = std::nullopt);

  struct RelayEndpoint {
    std::string relayHost;  // as the proxy answered; the proxy's own host for 0.0.0.0 or nothing
    std::uint16_t relayPort = 0;
  };
  /// Negotiates and asks for the association. After connect(). Throws SOCKS5Error, and leaves the
  /// connection to close() or the destructor then.
  RelayEndpoint performHandshakeAndUDPAssociate();

  /// Closes the connection. At any time, any number of times.
  void close();

 private:
  bool hasCredentials() const { return username_ && password_; }
  void authenticate();
  std::string readAddress(std::uint8_t addressType);
  void writeAll(ByteView bytes);
  Bytes readExactly(std::size_t count);

  const std::string host_;
  const std::int64_t port_;
  const std::optional<std::string> username_;
  const std::optional<std::string> password_;
  const double timeout_;
  // Both ways of the connected socket. Present from a successful connect() to close().
  std::unique_ptr<ByteStreamPair> streams_;
};

}  // namespace zk
