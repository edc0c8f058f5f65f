#pragma once

#include <cstdint>
#include <optional>

#include <sys/socket.h>

namespace zk {

/// From how far away an address can be reached, the narrowest first.
enum class Reach { machine, link, privateNetwork, everywhere };

/// A block of addresses with a meaning of its own.
struct AddressBlock {
  unsigned prefixLength = 0;
  Reach reach = Reach::everywhere;
  const char* unusable = nullptr;  // what it is, when no datagram can be sent to one host there
};

/// The block that an IPv4 address lies in, the first octet being the highest. Pure, any thread.
AddressBlock blockOf(std::uint32_t ipv4);

/// The same for an IPv4 or IPv6 socket address. IPv6 is told apart no further than loopback and
/// link-local.
AddressBlock blockOf(const sockaddr& address);

/// The IPv4 address of a socket address, which an IPv6 one may stand for (RFC 4291 section
/// 2.5.5.2); absent for any other.
std::optional<std::uint32_t> ipv4Of(const sockaddr& address);

}  // namespace zk
