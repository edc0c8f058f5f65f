#pragma once

#include <string>
#include <vector>

#include "Base/Endpoint.h"
#include "zkturn/ProxyOptions.h"

namespace zk {

/// What a program is run with, beside its proxy.
struct RunOptions {
  std::vector<std::string> command;  // the program and its arguments
  std::vector<Endpoint> dns;         // asked through the proxy; the public ones when there are none
  std::string logFile;               // every connection and what was kept in; empty: none
  bool carriesPrivate = false;       // private addresses too are asked of the proxy
  bool carriesQUIC = false;
  bool keepsBus = false;  // the session bus stays reachable
  bool asRoot = false;    // uid 0 is not refused
};

/// Runs the command with nothing but the proxy to reach, and returns what `zkturn run` ends with:
/// the command's own status, 128 + n after a signal, 126 and 127 where it cannot be run, 125 when
/// the fault is ours. It comes before any thread and any secret: the pass file is not read yet.
int run(const ProxyOptions& proxy, const RunOptions& options);

}  // namespace zk
