#pragma once

#include <chrono>
#include <cstddef>

#include "Loopback/ChildProcess.h"

namespace zk::bench {

/// What a process and its children that are still there have used so far, threads that have ended
/// included; its own children's as some servers serve with several processes.
struct Usage {
  explicit Usage(const loopback::ChildProcess& process);

  std::chrono::nanoseconds cpu{0};
  std::size_t wakeUps = 0;  // how often threads that are still there have waited for something
  std::size_t residentKilobytes = 0;
};

}  // namespace zk::bench
