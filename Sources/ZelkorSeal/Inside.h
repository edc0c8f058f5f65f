#pragma once

#include <array>
#include <csignal>
#include <tuple>

#include <sys/socket.h>

#include "Platform/Descriptor.h"
#include "ZelkorSeal/Mounts.h"
#include "ZelkorSeal/Seal.h"

namespace zk {

enum class SealMessageKind { failed, made, start, stopped, goOn };

/// What the process outside and process 1 of the seal tell each other, one message for each.
struct SealMessage {
  using Kind = SealMessageKind;
  Kind kind = Kind::failed;
  int signal = 0;     // by which the command was stopped
  char text[1000]{};  // why it failed, in words for people
};
/// Where the descriptors of a seal stand as they cross, and how many octets that takes.
using SealNumbers = std::array<int, std::tuple_size_v<decltype(SealDescriptors().all())>>;
using SealRights = std::array<char, CMSG_SPACE(sizeof(SealNumbers))>;

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
