#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/DatagramSocket.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"

namespace zk {

/// A SOCKS5 proxy and the login to it.
struct SOCKS5Proxy {
  std::string host;
  std::int64_t port = 0;
  std::optional<std::string> username;  // offered when both are present
  std::optional<std::string> password;
};

/// How one attempt at opening an association goes about it.
struct OpeningAttempt {
  bool viaDefault = false;         // datagrams by the default route, not pinned to an interface
  double connectTimeout = 10.0;    // seconds, of the control connection
  bool controlViaDefault = false;  // the control connection too, as if ZK_EGRESS_VIA_DEFAULT were 1
  bool failsWhenClosed = false;    // see SOCKS5Control
  const StopSignal* stop = nullptr;  // ends the attempt early when raised
};

/// The two attempts of every opening: pinned to the physical interface, with less time, since that
/// may be a network that leads nowhere; then by the default route.
std::array<OpeningAttempt, 2> openingAttempts(const StopSignal* stop = nullptr);

/// A UDP association with a proxy, made: the control connection that it lives with, and the socket
/// that its datagrams go through, bound, with large buffers, and pinned like InterfaceScope says.
struct Association {
  std::unique_ptr<SOCKS5Control> control;
  DatagramSocket socket;
  SOCKS5Control::RelayEndpoint relay;
  std::optional<unsigned> interface;  // that the socket is pinned to

  /// Connects and asks for it. Blocks meanwhile. `onStage` may be absent, see SOCKS5Control. Throws
  /// SOCKS5Error, or what a look at the interfaces throws; nothing is left open then.
  static Association open(const SOCKS5Proxy& proxy, const OpeningAttempt& attempt,
                          const SOCKS5Control::StageWatcher& onStage = nullptr);
};

}  // namespace zk
