#include "zkturn/Run.h"

#include <cstdio>

#include <fmt/format.h>

namespace zk {

int run(const ProxyOptions& /*proxy*/, const RunOptions& /*options*/) {
  fmt::print(stderr, "zkturn: programs cannot be sealed on this system\n");
  return 125;
}

}  // namespace zk
