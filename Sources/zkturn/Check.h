#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "zkturn/ProxyOptions.h"

namespace zk {

/// What a check is to find out, beside the proxy.
struct CheckOptions {
  unsigned count = 20;
  unsigned idleSeconds = 5;
  bool asJSON = false;
};

/// One thing that was asked of the proxy, and what came.
struct Step {
  enum class Mark { passed, failed, noted };  // noted: not as it should be, and no reason to fail
  Mark mark = Mark::passed;
  std::string name;
  std::string detail;
  double milliseconds = 0;
};

/// All that was found. What was not got to is absent, or empty.
struct Findings {
  bool carriesUDP = false;
  std::string verdict;  // one sentence; with what to try when it does not carry UDP
  std::vector<Step> steps;
  std::string relay;                    // host:port, as the proxy answered
  std::optional<Endpoint> seenByPeers;  // the address and port of the client's datagrams
  unsigned sent = 0;
  std::vector<double> roundTrips;  // milliseconds, in order of size
  std::size_t largestDatagram = 0;
  std::optional<bool> isPortTheSame;  // for two destinations
  std::optional<bool> survivesIdle;
};

/// Who wants to watch. Either may be absent.
struct Watcher {
  std::function<void(const Step&)> onStep;
  std::function<void(unsigned done, unsigned of)> onProbe;
};

/// Asks the proxy for all that a relay needs of it, one thing after the other, up to the first
/// without which there is no relay, and prints what came. Blocks meanwhile. 0 when the proxy
/// carries UDP, else 1. Throws UsageError.
int check(const ProxyOptions& proxy, const CheckOptions& options);

}  // namespace zk
