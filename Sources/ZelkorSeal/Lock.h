#pragma once

namespace zk {

/// Takes from this process, and from all that it starts, every capability and every way to one, and
/// the system calls that lead out of a seal otherwise than by its network. For good. Throws
/// SealStepFailure.
void lockProcess();

}  // namespace zk
