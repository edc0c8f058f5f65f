#pragma once

#include <csignal>

#include "Platform/Descriptor.h"
#include "ZelkorSeal/Mounts.h"
#include "ZelkorSeal/Seal.h"

namespace zk {

/// What the process outside and process 1 of the seal tell each other, one message for each.
struct SealMessage {
  enum class Kind { failed, made, start, stopped, goOn };
  Kind kind = Kind::failed;
  int signal = 0;        // by which the command was stopped
  char text[1000] = {};  // why it failed, in words for people
};
inline constexpr std::size_t sealDescriptorCount = 6;  // that come with `made`

/// What process 1 needs to know, learnt before it exists.
struct SealInside {
  Seal::Plan plan;
  SealMounts mounts;
  Descriptor outside;  // its end of the pair
  uid_t user = 0;
  gid_t group = 0;
  sigset_t signals{};  // blocked as the command is to find them
  struct sigaction childAction {};
};

/// Process 1 of a seal, right after the clone: makes all of it, hands the descriptors out, and runs
/// the command when told to. It ends with the command, with the process outside and with any step
/// that fails, and all in the seal ends with it.
[[noreturn]] void runInside(const SealInside& inside);

}  // namespace zk
