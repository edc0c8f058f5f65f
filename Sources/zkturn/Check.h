#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "zkturn/ProxyOptions.h"

namespace zk {

/// What a check is to find out, beside the proxy.
struct CheckOptions {
  unsigned count = 20;
  unsigned idleSeconds = 5;
  bool asJSON = false;
};

/// How well a proxy carries UDP. What was not got to is absent, or empty.
struct Quality {
  unsigned sent = 0;
  std::vector<double> roundTrips;  // milliseconds, in order of size
  std::size_t largestDatagram = 0;
  std::optional<bool> survivesIdle;
};

/// Asks the proxy for all that a relay needs of it, one thing after the other, up to the first
/// without which there is no relay, and prints what came. Blocks meanwhile. 0 when the proxy
/// carries UDP, 1 when it does not or cannot be reached, 3 when nobody has answered who could tell.
/// Throws UsageError.
int check(const ProxyOptions& proxy, const CheckOptions& options);

}  // namespace zk
