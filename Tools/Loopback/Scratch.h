#pragma once

#include <filesystem>
#include <string>

namespace zk::loopback {

/// A folder that goes when this goes.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  /// Writes a file in it. Its path.
  std::string write(const std::string& name, const std::string& text) const;
  /// An executable shell script in it. Its path.
  std::string script(const std::string& text) const;

 private:
  std::filesystem::path path_;
};

/// Empty when it cannot be read.
std::string contentOf(const std::filesystem::path& file);

}  // namespace zk::loopback
