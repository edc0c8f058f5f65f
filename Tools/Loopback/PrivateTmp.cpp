#include "Loopback/PrivateTmp.h"

#include <string>

#include <sched.h>
#include <sys/mount.h>

namespace zk::loopback {

PrivateTmp::PrivateTmp(int kilobytes) {
  const std::string size = "size=" + std::to_string(kilobytes) + "k";
  mounted_ = unshare(CLONE_NEWNS) == 0 &&
             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount("tmpfs", "/tmp", "tmpfs", 0, size.c_str()) == 0;
}

PrivateTmp::~PrivateTmp() {
  if (mounted_) {
    umount2("/tmp", MNT_DETACH);
  }
}

}  // namespace zk::loopback
