#include "ZelkorSOCKS5/AddressReach.h"

#include <cstdint>
#include <cstring>

namespace zk {
namespace {

struct IPv4Block {
  std::uint32_t prefix;
  AddressBlock block;
};
constexpr IPv4Block blocks[] = {
    {0x00000000, {8, Reach::machine, "no host's address"}},
    {0x0A000000, {8, Reach::privateNetwork}},   // RFC 1918
    {0x64400000, {10, Reach::privateNetwork}},  // RFC 6598
    {0x7F000000, {8, Reach::machine}},
    {0xA9FE0000, {16, Reach::link}},
    {0xAC100000, {12, Reach::privateNetwork}},  // RFC 1918
    {0xC0A80000, {16, Reach::privateNetwork}},  // RFC 1918
    {0xE0000000, {4, Reach::everywhere, "a multicast address"}},
    {0xFFFFFFFF, {32, Reach::link, "the broadcast address"}},
};

}  // namespace

AddressBlock blockOf(const sockaddr& address) {
  if (const auto ipv4 = asIPv4(address)) {
    const std::uint32_t octets = ntohl(ipv4->sin_addr.s_addr);
    for (const auto& [prefix, block] : blocks) {
      if ((octets ^ prefix) >> (32 - block.prefixLength) == 0) {
        return block;
      }
    }
    return {};
  }
  const in6_addr& ipv6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  if (IN6_IS_ADDR_LOOPBACK(&ipv6) || IN6_IS_ADDR_UNSPECIFIED(&ipv6)) {
    return {128, Reach::machine};
  }
  if (IN6_IS_ADDR_LINKLOCAL(&ipv6)) {
    return {10, Reach::link};
  }
  return {};
}

std::optional<sockaddr_in> asIPv4(const sockaddr& address) {
  if (address.sa_family == AF_INET) {
    return reinterpret_cast<const sockaddr_in&>(address);
  }
  const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
  if (!IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr)) {
    return std::nullopt;
  }
  sockaddr_in ipv4{};
  ipv4.sin_family = AF_INET;
  ipv4.sin_port = ipv6.sin6_port;
  std::memcpy(&ipv4.sin_addr, &ipv6.sin6_addr.s6_addr[12], sizeof ipv4.sin_addr);
  return ipv4;
}

}  // namespace zk
