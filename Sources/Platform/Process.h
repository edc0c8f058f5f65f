#pragma once

namespace zk {

/// Makes descriptors 0, 1 and 2 exist and all others not: a file opened later must never turn out
/// to be standard output, and nothing that the parent forgot to close is kept alive. First thing in
/// main().
void tidyInheritedDescriptors();

/// Raises the soft limit on open descriptors to the hard one. A client costs two, and the usual
/// soft limit of 1024 would end it at about 500 of them.
void raiseDescriptorLimit();

/// Gives memory that was freed back to the system, after a structure has shrunk by much.
void returnFreedMemory();

}  // namespace zk
