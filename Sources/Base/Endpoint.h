#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <netinet/in.h>

#include "Base/Bytes.h"

namespace zk {

/// An IPv4 address and a port, as numbers. Text is made of it for log lines and people only.
struct Endpoint {
  std::uint32_t address = 0;  // the first octet is the highest
  std::uint16_t port = 0;

  bool operator==(const Endpoint&) const = default;

  /// The address as a dotted quad without leading zeros, 15 characters at most.
  std::string ip() const;
  /// "address:port".
  std::string text() const;
  /// The same, written to `to`, where maxText characters fit. How many there are.
  std::size_t write(char* to) const;
  static constexpr std::size_t maxText = sizeof "255.255.255.255:65535" - 1;
  std::array<std::uint8_t, 4> octets() const;
  /// Both in one number: a key.
  std::uint64_t number() const { return std::uint64_t{address} << 16 | port; }

  static Endpoint of(const sockaddr_in& address) {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
  }
  sockaddr_in socketAddress() const;
};

/// The address of a dotted quad in the strict form of inet_pton, so that the
/// address written again gives the same text; absent for any other text.
std::optional<std::uint32_t> parseAddress(std::string_view text);

/// The address of a dotted-quad text, read leniently: pieces between dots that are empty or not a
/// decimal number of 0 to 255 are left out, and exactly four must remain. Absent otherwise.
std::optional<std::uint32_t> parseAddressLeniently(std::string_view text);

/// A port in decimal digits and nothing else.
std::optional<std::uint16_t> parsePort(std::string_view text);

/// A host, by name or address, and a port.
struct HostPort {
  std::string host;  // an IPv6 address without its brackets
  std::uint16_t port = 0;

  bool operator==(const HostPort&) const = default;
  /// "host:port"; an IPv6 address in brackets.
  std::string text() const;
};

/// Reads "HOST:PORT" or "[IPv6]:PORT", the port 1 to 65535; absent for any other text.
std::optional<HostPort> parseHostPort(std::string_view text);

}  // namespace zk

template <>
struct std::hash<zk::Endpoint> {
  std::size_t operator()(const zk::Endpoint& endpoint) const noexcept {
    // Clients differ in their ports, peers in both; one multiplication spreads either.
    return static_cast<std::size_t>((endpoint.number() * 0x9E3779B97F4A7C15U) >> 16);
  }
};
