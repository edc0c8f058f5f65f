#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <sys/socket.h>

#include "Base/Endpoint.h"
#include "Platform/Sockets.h"
#include "Platform/TCPSocket.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"

namespace zk {

class StopSignal;

/// The client side of one SOCKS5 control connection (RFC 1928, RFC 1929): TCP to the proxy, method
/// negotiation, one UDP ASSOCIATE. The proxy ends the association when this connection closes, so
/// the object is kept for as long as the association is used; destruction closes the connection.
///
/// Until the association is made every operation blocks its caller, within the time limit and until
/// the stop signal is raised. From then on nothing does. One thread at a time.
class SOCKS5Control {
 public:
  /// `timeout`: seconds, the bound of each connection attempt, each read and each write.
  /// Credentials are offered only when both are present; empty ones count as present. `stop` may be
  /// absent, and else outlives this; what it ends fails with connectionFailed("stopped"). No I/O.
  SOCKS5Control(std::string host, std::int64_t port, std::optional<std::string> username,
                std::optional<std::string> password, double timeout,
                const StopSignal* stop = nullptr);

  enum class Stage { nameFound, connected, methodChosen, loggedIn, associated };
  /// Told of each stage once it is behind, with what was found there, for those who want to watch.
  using StageWatcher = std::function<void(const SOCKS5Control&, Stage, const std::string&)>;
  StageWatcher onStage;
  /// Whether a connection that the proxy closes fails at once, for those who advise somebody. Else
  /// it fails when the time limit passes, as if the proxy said nothing: clients try again and
  /// again.
  bool failsWhenClosed = false;

  /// Resolves the proxy and connects to the first of its addresses that answers. Sockets are pinned
  /// as InterfaceScope decides for the configured host with `viaDefault` as the override. Throws
  /// SOCKS5Error, and leaves nothing open then.
  void connect(std::optional<bool> viaDefault = std::nullopt);

  struct RelayEndpoint {
    std::string relayHost;  // as the proxy answered; the proxy's own host for 0.0.0.0 or nothing
    std::uint16_t relayPort = 0;
    Endpoint relayAddress;  // where datagrams go: see relayAddress()
  };
  /// Negotiates and asks for the association. After connect(). Throws SOCKS5Error, and leaves the
  /// connection to close() or the destructor then.
  RelayEndpoint performHandshakeAndUDPAssociate();

  /// Where this connection goes to; a zero family before connect().
  const sockaddr_storage& proxyAddress() const { return proxyAddress_; }
  /// The interface that it is pinned to, if any.
  std::optional<unsigned> pinnedInterface() const { return pinnedInterface_; }

  /// Once the association is made: has the system notice a proxy that is gone without a word.
  void watchAlive();
  /// While there is no way to the proxy: nothing is sent on the connection, no acknowledgement
  /// either.
  void setQuiet(bool isQuiet);
  /// The connection's socket, readable when takeEnd() has something to say. -1 without one.
  int descriptor() const { return stream_.descriptor(); }
  /// Why the connection has ended; absent while it lives. Never blocks. What the proxy says on it
  /// is thrown away.
  std::optional<std::string> takeEnd();

  /// Closes the connection. At any time, any number of times.
  void close() { stream_ = TCPSocket(); }

 private:
  std::optional<SOCKS5Error> tryAddress(const struct ResolvedAddress& address,
                                        std::optional<bool> viaDefault);
  void negotiate();
  std::string readAddress(std::uint8_t addressType);
  void writeAll(ByteView bytes);
  Bytes readExactly(std::size_t count);
  void failIfStopped() const;
  void await(short events, Deadline deadline) const;
  std::size_t octetsOf(const Transfer& moved, const char* operation) const;
  void tell(Stage stage, const std::string& detail) const;

  const std::string host_;
  const std::int64_t port_;
  const std::optional<std::string> username_;
  const std::optional<std::string> password_;
  const double timeout_;
  const StopSignal* const stop_;
  sockaddr_storage proxyAddress_{};
  std::optional<unsigned> pinnedInterface_;
  TCPSocket stream_;  // from a successful connect() to close()
};

}  // namespace zk
