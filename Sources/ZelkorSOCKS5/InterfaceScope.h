#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/PathMonitor.h"

namespace zk {

/// What a connection is asked to be like before it is opened.
struct ConnectionParameters {
  std::optional<NetworkInterface> requiredInterface;
};

/// Decides whether a socket leaves by the physical interface rather than along the routes, which a
/// full-tunnel VPN takes over, and pins it there.
///
/// The interface is the first Wi-Fi or wired one that the system reports as available. It is looked
/// for once in the life of the process, on first use, which may block for up to 3 seconds; without
/// one nothing is pinned. Nothing here fails: what cannot be pinned takes the default route.
///
/// Any thread, except that modeOverride has no lock: its only writer sets it around the opening of
/// a relay, on the thread that opens it.
class InterfaceScope {
 public:
  /// The process-wide override: true means by the default route, false means pinned, absent leaves
  /// it to the environment.
  static std::optional<bool> modeOverride;

  /// Whether traffic to `host` is to be pinned. Loopback and unspecified addresses never are; then
  /// the override decides; then ZK_EGRESS_VIA_DEFAULT, which keeps everything on the default route
  /// when it is exactly "1".
  static bool shouldScope(std::string_view host) { return shouldScope(host, modeOverride); }
  static bool shouldScope(std::string_view host, std::optional<bool> override);

  /// Sets the required interface of a connection towards `host` when it is to be pinned and there
  /// is one. Returns the same parameters.
  static ConnectionParameters& scoped(ConnectionParameters& parameters, std::string_view host) {
    return scoped(parameters, host, modeOverride);
  }
  static ConnectionParameters& scoped(ConnectionParameters& parameters, std::string_view host,
                                      std::optional<bool> override);

  /// Pins an IPv4 socket towards `host` when it is to be pinned and there is an interface.
  static void bind(int socket, std::string_view forHost) { bind(socket, forHost, modeOverride); }
  static void bind(int socket, std::string_view forHost, std::optional<bool> override);

  /// The chosen interface, its name and the index that the name has now; absent without one.
  static std::optional<NetworkInterface> nwInterface();
  static std::optional<std::string> name();
  static std::optional<unsigned> ifIndex();

  /// Forgets the interface: the next use looks for it again.
  static void invalidate();

 private:
  static void resolveIfNeeded();

  static std::mutex lock;                           // held for the whole of a resolution
  static bool resolved;                             // guarded by lock
  static std::optional<NetworkInterface> cachedNW;  // guarded by lock
  static std::optional<std::string> cachedName;     // guarded by lock
};

}  // namespace zk
