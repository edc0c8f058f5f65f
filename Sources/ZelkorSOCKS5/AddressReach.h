#pragma once

#include <optional>

#include <netinet/in.h>
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

/// The block that an IPv4 or IPv6 address lies in. IPv6 is told apart no further than loopback and
/// link-local. Pure, any thread.
AddressBlock blockOf(const sockaddr& address);

/// The address as IPv4, which an IPv6 one may stand for (RFC 4291 section 2.5.5.2); absent for any
/// other.
std::optional<sockaddr_in> asIPv4(const sockaddr& address);

}  // namespace zk
