#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <netinet/in.h>

#include "Base/Bytes.h"

namespace zk {

using IPv4Octets = std::array<std::uint8_t, 4>;

/// The octets of a dotted-quad text, read leniently: pieces between dots that are empty or not a
/// decimal number of 0 to 255 are left out, and exactly four must remain. Absent otherwise.
std::optional<IPv4Octets> parseIPv4(std::string_view text);

/// The octets of a dotted quad in the strict form of inet_pton; absent for any other text.
std::optional<IPv4Octets> parseDottedQuad(std::string_view text);
inline bool isDottedQuad(std::string_view text) {
  return parseDottedQuad(text).has_value();
}

/// The octets in decimal, joined by dots, without leading zeros. At most 15 characters, so the
/// text never lives on the heap. `octets` points at four.
std::string formatIPv4(const std::uint8_t* octets);

/// The socket address of a dotted-quad text and a port; 0.0.0.0 for any other text.
sockaddr_in socketAddress(std::string_view ip, std::uint16_t port);

/// The address and the port of a socket address, in the form that travels between modules.
std::string addressText(const sockaddr_in& address);
std::uint16_t portNumber(const sockaddr_in& address);

/// Whether address and port are the same.
inline bool isSameAddress(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
}

}  // namespace zk
