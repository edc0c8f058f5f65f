#pragma once

#include <optional>
#include <string_view>

#include <sys/socket.h>

namespace zk {

class Interfaces;

/// Decides by which interface traffic towards a proxy leaves: the physical one rather than along
/// the routes, which a full-tunnel VPN takes over.
///
/// Machine and environment are looked at anew by every call; nothing is remembered, so that a
/// machine that moves between networks is served on each. Any thread.
namespace InterfaceScope {

/// Whether traffic to `host` is to be pinned, by its text alone. Loopback and unspecified addresses
/// never are; then the override decides (true: by the default route); then ZK_EGRESS_VIA_DEFAULT,
/// which keeps everything on the default route when it is exactly "1".
bool shouldScope(std::string_view host, std::optional<bool> override);

/// The index of the interface that a socket towards `destination`, an address of `host`, is to be
/// pinned to; absent when it is to follow the routes, as it does
/// - when shouldScope() says so, and to an address of this machine;
/// - when no interface that could be pinned to has a route there.
///
/// A private address (RFC 1918, RFC 6598) within a narrower link route (containers, a company's
/// VPN) belongs to the interface of that route, so that nothing follows onto the wire when it goes.
/// Everything else leaves by the first Wi-Fi or wired interface that has a route.
///
/// Throws LookFailed when the system cannot be asked: then nobody knows whether to pin, and nothing
/// may be sent. `look` is for those who keep one.
std::optional<unsigned> interfaceFor(std::string_view host, const sockaddr& destination,
                                     std::optional<bool> override);
std::optional<unsigned> interfaceFor(std::string_view host, const sockaddr& destination,
                                     std::optional<bool> override, Interfaces& look);

}  // namespace InterfaceScope
}  // namespace zk
