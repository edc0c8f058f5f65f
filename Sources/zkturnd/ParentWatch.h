#pragma once

namespace zk {

/// Requests a stop once standard input ends: a parent that goes away, for whatever reason, takes
/// the daemon with it. Whatever arrives on standard input is discarded. Watches on a thread of its
/// own until the process ends. Throws std::system_error when there is no thread left.
void watchParent();

}  // namespace zk
