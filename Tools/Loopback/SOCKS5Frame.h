#pragma once

#include <cstddef>
#include <optional>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"

namespace zk::loopback {

/// The octets of a header with an IPv4 address.
inline constexpr std::size_t socks5HeaderSize = 10;

/// Writes the header of RFC 1928 section 7 with an IPv4 address to `to`.
void writeSOCKS5Header(std::uint8_t* to, const Endpoint& address);

/// That header, then `payload`: what a proxy's relay sends to its client. Tests that want another
/// header build it themselves.
Bytes socks5Frame(const Endpoint& address, ByteView payload);

/// What a client sent to the relay.
struct SOCKS5Unframed {
  Endpoint destination;
  ByteView payload;  // in the frame
};

/// Absent for anything but a whole, unfragmented frame with an IPv4 address: the kit's proxy drops
/// those, as RFC 1928 tells an implementation without fragment reassembly to do.
std::optional<SOCKS5Unframed> socks5Unframe(ByteView frame);

/// Whether `payload` has the shape of a STUN message (RFC 5389 section 6).
bool looksLikeSTUN(ByteView payload);

}  // namespace zk::loopback
