#pragma once

#include <cstdint>

namespace zk::bench {

/// What every relay is held against: a forwarder that does one recvfrom() and one sendto() per
/// datagram and nothing else, with one thread per direction. It serves one client, listens on a
/// port that it prints on standard output, and forwards to 127.0.0.1:`farPort`. Never returns.
[[noreturn]] void runFloor(std::uint16_t farPort);

}  // namespace zk::bench
