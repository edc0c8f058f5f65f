#pragma once

namespace zk {

/// Requests a stop once standard input has ended, which is how a parent that goes away, however it
/// does, takes the daemon with it. What comes on standard input is thrown away. Watches on a thread
/// of its own until the process ends. Throws std::system_error when there is no thread to be had.
void watchParent();

}  // namespace zk
