#pragma once

#include "Base/Endpoint.h"

namespace zk::bench {

/// What `zkturn run` is held against: a gate that does for one connection and one port just what
/// has to be done, and looks at nothing that it need not. It makes a network as a seal has it,
/// without the rest of a seal, prints the number of a thread that is in there, and carries TCP to
/// `target` and the datagrams of the port that has sent last. Never returns. As root.
[[noreturn]] void runGate(const Endpoint& proxy, const Endpoint& target);

}  // namespace zk::bench
