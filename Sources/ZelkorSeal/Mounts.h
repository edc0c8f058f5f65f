#pragma once

#include <string>
#include <vector>

namespace zk {

/// The files that sockets are bound to, as the system lists them, in this network namespace and in
/// those of this user's other processes. Throws SealStepFailure or
/// std::filesystem::filesystem_error.
std::vector<std::string> boundSocketFiles();

/// What the mounts of a seal depend on, learnt outside of it.
struct SealMounts {
  std::vector<std::string> socketFiles;  // of programs outside
  std::string workingFolder;
  bool keepsBus = false;
};

/// Changes the mount namespace that this process has all to itself, with the privileges of its
/// owner: /proc and /sys show the seal, and nothing by which a program outside can be asked to
/// speak to the network shows. Reads WAYLAND_DISPLAY, XAUTHORITY and XDG_RUNTIME_DIR. Throws
/// SealStepFailure.
void makeSealMounts(const SealMounts& plan);

}  // namespace zk
