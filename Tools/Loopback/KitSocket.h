#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <netinet/in.h>

#include "Platform/Bytes.h"

namespace zk::loopback {

/// A non-blocking, close-on-exec UDP socket bound to `ip`:`port` (0 = any free port), with as large
/// a receive buffer as the system grants, so that a burst in a test is not lost on the far side.
/// Throws std::system_error.
int openBoundUDPSocket(const std::string& ip, std::uint16_t port);

/// A non-blocking, close-on-exec TCP listener on `ip`:`port` (0 = any free port). Throws
/// std::system_error.
int openListener(const std::string& ip, std::uint16_t port);

/// One datagram that has arrived.
struct Arrival {
  ByteView datagram;  // in the caller's buffer
  sockaddr_in from;
};

/// Takes one waiting datagram; absent when there is none.
std::optional<Arrival> takeDatagram(int socket, std::span<std::uint8_t> into);

}  // namespace zk::loopback
