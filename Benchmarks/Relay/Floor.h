#pragma once

#include "Base/Endpoint.h"

namespace zk::bench {

/// What every relay is held against: a forwarder that does one recvfrom() and one sendto() per
/// datagram and nothing else, with one thread per direction. It serves one client, listens on a
/// port of 127.0.0.1 that it prints on standard output, and forwards to `far`. Never returns.
[[noreturn]] void runFloor(const Endpoint& far);

}  // namespace zk::bench
