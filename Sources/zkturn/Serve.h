#pragma once

#include <string>

#include "zkturn/ProxyOptions.h"

namespace zk {

/// What `zkturn serve` needs beside its proxy.
struct ServeOptions {
  std::string program;  // how this program was called: the daemon lies beside it, or in PATH
};

/// Starts the daemon for the proxy and prints one line of JSON, what an RTCPeerConnection takes as
/// its configuration; for eyes it says on standard error what peers see. Serves until SIGINT,
/// SIGTERM or SIGHUP, and ends the process then, with status 0; with 1 when the proxy cannot be
/// used or the daemon ends by itself. Throws UsageError.
int serve(const ProxyOptions& proxy, const ServeOptions& options);

}  // namespace zk
