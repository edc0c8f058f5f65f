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

/// A /tmp of this process and its children alone, of so many KiB of memory, so that the daemon's
/// logs are nobody else's and harm nobody. It must be made before there are threads, and needs
/// root.
class PrivateTmp {
 public:
  explicit PrivateTmp(int kilobytes);
  ~PrivateTmp();
  PrivateTmp(const PrivateTmp&) = delete;
  PrivateTmp& operator=(const PrivateTmp&) = delete;

  bool mounted() const { return mounted_; }

 private:
  bool mounted_ = false;
};

std::string contentOf(const std::filesystem::path& file);

}  // namespace zk::loopback
