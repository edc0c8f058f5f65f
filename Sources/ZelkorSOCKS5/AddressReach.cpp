#include "ZelkorSOCKS5/AddressReach.h"

#include <netinet/in.h>

#include "Base/Bytes.h"

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

AddressBlock blockOf(std::uint32_t ipv4) {
  for (const auto& [prefix, block] : blocks) {
    if ((ipv4 ^ prefix) >> (32 - block.prefixLength) == 0) {
      return block;
    }
  }
  return {};
}

AddressBlock blockOf(const sockaddr& address) {
  if (const auto ipv4 = ipv4Of(address)) {
    return blockOf(*ipv4);
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

std::optional<std::uint32_t> ipv4Of(const sockaddr& address) {
  if (address.sa_family == AF_INET) {
    return ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr);
  }
  const in6_addr& ipv6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  if (!IN6_IS_ADDR_V4MAPPED(&ipv6)) {
    return std::nullopt;
  }
  return readUInt32(ipv6.s6_addr, 12);
}

}  // namespace zk
