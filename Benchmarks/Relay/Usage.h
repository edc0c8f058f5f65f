#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

#include "Loopback/ChildProcess.h"
#include "Loopback/Load.h"
#include "Report.h"

namespace zk::bench {

/// Some servers serve with several processes.
enum class Family { withChildren, alone };

/// What a process and, with them, its children that are still there have used so far, threads that
/// have ended included.
struct Usage {
  explicit Usage(const loopback::ChildProcess& process, Family counted = Family::withChildren);

  std::chrono::nanoseconds cpu{0};
  std::size_t wakeUps = 0;  // how often threads that are still there have waited for something
  std::size_t residentKilobytes = 0;
};

/// Runs `load`, and reads what the process has used for it.
Measurement measured(const loopback::ChildProcess& process,
                     const std::function<loopback::LoadResult()>& load,
                     Family counted = Family::withChildren);

}  // namespace zk::bench
