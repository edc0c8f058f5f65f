#include "Platform/Interfaces.h"

#include <array>
#include <cstddef>
#include <cstring>

#include <netinet/in.h>

#include "Platform/Sockets.h"
#include "Platform/posix/System.h"

namespace zk {

RouteAnswer Interfaces::askRoute(unsigned interfaceIndex, const sockaddr& destination) {
  try {
    return hasRoute(interfaceIndex, destination) ? RouteAnswer::yes : RouteAnswer::no;
  } catch (const LookFailed&) {
    return RouteAnswer::unknown;
  }
}

void RouteWatch::drain() {
  std::array<std::uint8_t, 4096> discarded;
  while (recv(socket_.get(), discarded.data(), discarded.size(), 0) > 0) {
  }
}

Descriptor openForLooks(int family, int type) {
  try {
    return openNonBlockingSocket(family, type, 0);
  } catch (const std::system_error& error) {
    throw LookFailed(error);
  }
}

ByteView octetsOf(const sockaddr& address) {
  const auto* const raw = reinterpret_cast<const std::uint8_t*>(&address);
  switch (address.sa_family) {
    case AF_INET:
      return {raw + offsetof(sockaddr_in, sin_addr), sizeof(in_addr)};
    case AF_INET6:
      return {raw + offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr)};
    default:
      return {};
  }
}

bool sharePrefix(const std::uint8_t* a, const std::uint8_t* b, unsigned bits) {
  const unsigned whole = bits / 8;
  return std::memcmp(a, b, whole) == 0 &&
         (bits % 8 == 0 || (a[whole] ^ b[whole]) >> (8 - bits % 8) == 0);
}

}  // namespace zk
