#include "zkturn/Run.h"

#include <cstdio>

#include <fmt/format.h>

namespace zk {

int run(const ProxyOptions& /*proxy*/, const RunOptions& /*options*/) {
  fmt::print(stderr,
             "zkturn: this system has no namespaces to seal a program into; run it on Linux\n");
  return 125;
}

}  // namespace zk
