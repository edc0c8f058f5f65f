#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "Platform/Descriptor.h"

namespace zk {

/// A command as it is started in a seal. A browser that runs already would take a page over and
/// open it outside; so one that is told by its name gets a profile of its own, unless the command
/// names one.
class SealedCommand {
 public:
  /// `arguments` must not be empty. Locks the profile, and makes it where it is missing. Throws
  /// SealFailure for what cannot start in a seal, and where there is no profile to be had.
  explicit SealedCommand(std::vector<std::string> arguments);
  /// Removes a profile that was made for this once.
  ~SealedCommand();
  SealedCommand(const SealedCommand&) = delete;
  SealedCommand& operator=(const SealedCommand&) = delete;

  const std::vector<std::string>& arguments() const { return arguments_; }
  /// What people are told of it; empty when nothing is as they might not expect.
  const std::string& remark() const { return remark_; }

 private:
  void takeProfile(const std::string& name);

  std::vector<std::string> arguments_;
  std::string remark_;
  std::filesystem::path profile_;
  Descriptor lock_;  // on it
  bool isTemporary_ = false;
};

}  // namespace zk
