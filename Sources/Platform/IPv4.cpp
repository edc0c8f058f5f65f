#include "Platform/IPv4.h"

#include <charconv>
#include <cstring>

#include <arpa/inet.h>

namespace zk {

std::optional<IPv4Octets> parseIPv4(std::string_view text) {
  IPv4Octets octets{};
  std::size_t count = 0;
  while (!text.empty()) {
    const std::size_t dot = text.find('.');
    const std::string_view piece = text.substr(0, dot);
    text = dot == std::string_view::npos ? std::string_view{} : text.substr(dot + 1);

    std::uint8_t octet = 0;
    const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), octet);
    if (error != std::errc{} || end != piece.data() + piece.size()) {
      continue;
    }
    if (count == octets.size()) {
      return std::nullopt;
    }
    octets[count++] = octet;
  }
  if (count != octets.size()) {
    return std::nullopt;
  }
  return octets;
}

bool isDottedQuad(const std::string& text) {
  in_addr parsed{};
  // inet_pton() would stop at a zero octet and not see what stands behind it.
  return text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &parsed) == 1;
}

std::string formatIPv4(const std::uint8_t* octets) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    const unsigned octet = octets[i];
    if (i > 0) {
      text += '.';
    }
    if (octet >= 100) {
      text += static_cast<char>('0' + octet / 100);
    }
    if (octet >= 10) {
      text += static_cast<char>('0' + octet / 10 % 10);
    }
    text += static_cast<char>('0' + octet % 10);
  }
  return text;
}

sockaddr_in socketAddress(const std::string& ip, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

std::string addressText(const sockaddr_in& address) {
  std::uint8_t octets[4];
  std::memcpy(octets, &address.sin_addr, sizeof octets);
  return formatIPv4(octets);
}

std::uint16_t portNumber(const sockaddr_in& address) {
  return ntohs(address.sin_port);
}

}  // namespace zk
