#pragma once

#include "Platform/Descriptor.h"

namespace zk::test {

// What tests ask of the system that not every system, and not every user, can give.

/// Puts this thread, and those it starts, into a network of their own, which has a loopback that is
/// down and nothing else. A handle of the network before; none when that cannot be.
Descriptor enterNewNetwork();
void returnToNetwork(const Descriptor& before);

/// Has a burst from that socket leave datagram by datagram, where the system would cut it from one.
void refuseSegments(int socket);

}  // namespace zk::test
