#pragma once

#include <chrono>

#include "Loopback/Load.h"

namespace zk::bench {

/// Of a call the sound comes every 20 ms and the pictures every 33; what comes back this much later
/// meets what goes there as seldom as with two who talk.
inline constexpr std::chrono::milliseconds callDistance{13};
inline constexpr std::chrono::seconds callDuration{2};

/// A call with sound and pictures: 50 datagrams of 160 octets a second beside 30 pictures of 4 to
/// 10 datagrams of 1,100 octets. All of them are to come back, which makes it as much the other
/// way.
loopback::LoadResult runCall(const loopback::CallLeg& leg, std::chrono::milliseconds duration);

}  // namespace zk::bench
