#include "Base/Endpoint.h"

#include <charconv>
#include <cstring>

#include <arpa/inet.h>
#include <fmt/format.h>

namespace zk {
namespace {

std::size_t writeAddress(char* to, const Endpoint& endpoint) {
  std::size_t length = 0;
  for (const unsigned octet : endpoint.octets()) {
    if (octet >= 100) {
      to[length++] = static_cast<char>('0' + octet / 100);
    }
    if (octet >= 10) {
      to[length++] = static_cast<char>('0' + octet / 10 % 10);
    }
    to[length++] = static_cast<char>('0' + octet % 10);
    to[length++] = '.';
  }
  return length - 1;
}

}  // namespace

std::string Endpoint::ip() const {
  char text[maxText];
  return {text, writeAddress(text, *this)};
}

std::string Endpoint::text() const {
  char text[maxText];
  return {text, write(text)};
}

std::size_t Endpoint::write(char* to) const {
  std::size_t length = writeAddress(to, *this);
  to[length++] = ':';
  const fmt::format_int digits(port);
  std::memcpy(to + length, digits.data(), digits.size());
  return length + digits.size();
}

std::array<std::uint8_t, 4> Endpoint::octets() const {
  return {static_cast<std::uint8_t>(address >> 24), static_cast<std::uint8_t>(address >> 16),
          static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address)};
}

sockaddr_in Endpoint::socketAddress() const {
  sockaddr_in made{};
  made.sin_family = AF_INET;
  made.sin_port = htons(port);
  made.sin_addr.s_addr = htonl(address);
  return made;
}

std::optional<std::uint32_t> parseAddress(std::string_view text) {
  in_addr address{};
  const std::string terminated(text);
  // inet_pton() would not see what stands behind a zero octet.
  if (text.find('\0') != text.npos || inet_pton(AF_INET, terminated.c_str(), &address) != 1) {
    return std::nullopt;
  }
  return ntohl(address.s_addr);
}

std::optional<std::uint32_t> parseAddressLeniently(std::string_view text) {
  std::uint32_t address = 0;
  int count = 0;
  while (!text.empty()) {
    const std::size_t dot = text.find('.');
    const std::string_view piece = text.substr(0, dot);
    text = dot == std::string_view::npos ? std::string_view{} : text.substr(dot + 1);

    std::uint8_t octet = 0;
    const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), octet);
    if (error == std::errc{} && end == piece.data() + piece.size()) {
      address = address << 8 | octet;
      ++count;
    }
  }
  return count == 4 ? std::optional(address) : std::nullopt;
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, port);
  return error == std::errc{} && stopped == end ? std::optional(port) : std::nullopt;
}

std::string HostPort::text() const {
  return host.find(':') != std::string::npos ? fmt::format("[{}]:{}", host, port)
                                             : fmt::format("{}:{}", host, port);
}

std::optional<HostPort> parseHostPort(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.empty() || host.find_first_of(":[]") != std::string_view::npos) {
    return std::nullopt;
  }
  const auto port = parsePort(text.substr(colon + 1));
  return port && *port != 0 ? std::optional(HostPort{std::string(host), *port}) : std::nullopt;
}

}  // namespace zk
