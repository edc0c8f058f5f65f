#include "Base/IPv4.h"

#include <charconv>
#include <cstring>

#include <arpa/inet.h>

namespace zk {

// As inet_pton() has it: four decimal numbers of 0 to 255 without leading zeros. Read here because
// inet_pton() wants a terminated text, would not see what stands behind a zero octet, and is called
// for every datagram.
std::optional<IPv4Octets> parseDottedQuad(std::string_view text) {
  IPv4Octets octets{};
  std::size_t at = 0;
  for (std::size_t i = 0; i < octets.size(); ++i) {
    if (i > 0 && (at == text.size() || text[at++] != '.')) {
      return std::nullopt;
    }
    const std::size_t start = at;
    unsigned value = 0;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9' && at - start < 3) {
      value = value * 10 + static_cast<unsigned>(text[at++] - '0');
    }
    if (at == start || value > 255 || (at - start > 1 && text[start] == '0')) {
      return std::nullopt;
    }
    octets[i] = static_cast<std::uint8_t>(value);
  }
  return at == text.size() ? std::optional(octets) : std::nullopt;
}

std::optional<IPv4Octets> parseIPv4(std::string_view text) {
  if (const auto strict = parseDottedQuad(text)) {
    return strict;  // nearly always
  }
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

std::string formatIPv4(const std::uint8_t* octets) {
  std::array<char, 16> text;
  std::size_t length = 0;
  for (int i = 0; i < 4; ++i) {
    const unsigned octet = octets[i];
    if (octet >= 100) {
      text[length++] = static_cast<char>('0' + octet / 100);
    }
    if (octet >= 10) {
      text[length++] = static_cast<char>('0' + octet / 10 % 10);
    }
    text[length++] = static_cast<char>('0' + octet % 10);
    text[length++] = '.';
  }
  return {text.data(), length - 1};
}

sockaddr_in socketAddress(std::string_view ip, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  const IPv4Octets octets = parseDottedQuad(ip).value_or(IPv4Octets{});
  std::memcpy(&address.sin_addr, octets.data(), octets.size());
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
