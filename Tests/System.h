#pragma once

#include <optional>

#include "Platform/Descriptor.h"

namespace zk::test {

// What tests ask of the system that not every system, and not every user, can give.

/// Puts this thread, and those it starts, into a network of their own, which has a loopback that is
/// down and nothing else. A handle of the network before; none when that cannot be.
Descriptor enterNewNetwork();
void returnToNetwork(const Descriptor& before);

/// Whether `check` holds in a process on whose machine the clock that counts suspended time is so
/// many seconds ahead of the one that does not. Absent where there is no such machine to be had.
std::optional<bool> holdsAfterSuspension(int seconds, bool (*check)());

/// Has a burst from that socket leave datagram by datagram, where the system would cut it from one.
void refuseSegments(int socket);

}  // namespace zk::test
