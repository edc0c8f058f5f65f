#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"

namespace zk {

/// The header in front of every datagram of a UDP association (RFC 1928 section 7). Pure, any
/// thread.
namespace SOCKS5UDPFrame {

inline constexpr std::size_t headerSize = 10;  // of what wrap() writes
using Header = std::array<std::uint8_t, headerSize>;

/// The header of what goes to a peer.
Header header(const Endpoint& toPeer);

/// Header and payload, in one allocation.
Bytes wrap(ByteView payload, const Endpoint& toPeer);
/// The same for a peer that the proxy looks up, where it has a name of at most 255 octets.
Bytes wrap(ByteView payload, const HostPort& toPeer);

struct Unwrapped {
  ByteView payload;  // within the datagram; possibly empty
  Endpoint source;   // its address is 0 where there is a name
  /// What the proxy calls a source that has no IPv4 address: a domain name, or sixteen
  /// colon-separated hex pairs.
  std::optional<std::string> name{};
};

/// What a datagram from the proxy's relay carries; absent when it is malformed. RSV and FRAG are
/// not looked at. The payload lives as long as `datagram`.
std::optional<Unwrapped> unwrap(ByteView datagram);

}  // namespace SOCKS5UDPFrame

/// Address types of RFC 1928 section 5.
namespace SOCKS5AddressType {
inline constexpr std::uint8_t ipv4 = 0x01;
inline constexpr std::uint8_t domainName = 0x03;
inline constexpr std::uint8_t ipv6 = 0x04;

/// How many octets an address of that type takes. `first` is the first of them, which for a name is
/// its length. Absent for any other type.
std::optional<std::size_t> size(std::uint8_t type, std::uint8_t first);
}  // namespace SOCKS5AddressType

/// Sixteen octets as two lowercase hexadecimal digits each, joined by ":"; not the compressed
/// notation.
std::string ipv6Text(ByteView octets);

/// The octets as UTF-8 text; empty when they are not valid UTF-8.
std::string domainNameText(ByteView octets);

}  // namespace zk
