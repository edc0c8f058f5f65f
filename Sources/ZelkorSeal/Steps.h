#pragma once

#include <cerrno>
#include <string>
#include <string_view>

namespace zk {

/// What a seal is made of, as far as people are told different things when it fails.
enum class SealStep { process, namespaces, maps, mounts, proc, sys, tun, network, lock };

/// A step that the system refused.
struct SealStepFailure {
  SealStep step;
  std::string what;  // was done, and with what: "mount /proc"
  int error;         // the system's number, 0 when it had nothing to say
};

/// Throws SealStepFailure with the error of the last call, unless that `succeeded`.
inline void requireStep(bool succeeded, SealStep step, std::string_view what) {
  if (!succeeded) {
    const int error = errno;
    throw SealStepFailure{step, std::string(what), error};
  }
}

/// One sentence for people, with what to try on this machine. Looks at the system's settings.
std::string adviceFor(const SealStepFailure& failure);

}  // namespace zk
