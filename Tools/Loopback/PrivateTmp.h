#pragma once

namespace zk::loopback {

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

}  // namespace zk::loopback
