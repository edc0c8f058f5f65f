#include "Loopback/SOCKS5Script.h"

#include <stdexcept>

#include "Platform/IPv4.h"

namespace zk::loopback {

void SOCKS5Script::announceIPv4(const std::string& dottedQuad) {
  const auto octets = parseIPv4(dottedQuad);
  if (!octets) {
    throw std::invalid_argument("not an IPv4 address: " + dottedQuad);
  }
  announceType = 0x01;
  announceAddress = Bytes(octets->begin(), octets->end());
}

void SOCKS5Script::announceDomain(const std::string& name) {
  const ByteView octets = bytesOf(name);
  announceType = 0x03;
  announceAddress = Bytes(octets.begin(), octets.end());
}

void SOCKS5Script::announceIPv6(const std::array<std::uint8_t, 16>& octets) {
  announceType = 0x04;
  announceAddress = Bytes(octets.begin(), octets.end());
}

}  // namespace zk::loopback
