#pragma once

#include "ZelkorSeal/Seal.h"

namespace zk {

/// Equips the network namespace that this process has all to itself: the loopback, the tun, the
/// sockets. In the end there is no other interface that is up. With the privileges of the
/// namespace's owner, and a /proc of its own. Throws SealStepFailure.
SealDescriptors makeSealNetwork();

}  // namespace zk
