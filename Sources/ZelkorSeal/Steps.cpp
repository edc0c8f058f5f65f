#include "ZelkorSeal/Steps.h"

#include <fstream>

#include <fmt/format.h>

#include "Platform/Sockets.h"

namespace zk {
namespace {

// A number below /proc/sys; absent settings give `otherwise`.
long setting(const char* name, long otherwise) {
  long value = otherwise;
  std::ifstream file(std::string("/proc/sys/") + name);
  return file >> value ? value : otherwise;
}

// What keeps programs of this user from namespaces; empty when nothing is known to.
std::string restriction() {
  if (setting("kernel/unprivileged_userns_clone", 1) == 0) {
    return "kernel.unprivileged_userns_clone is 0 here; as root, set it to 1 with sysctl";
  }
  if (setting("user/max_user_namespaces", 1) == 0) {
    return "user.max_user_namespaces is 0 here; as root, set it to 10000 with sysctl";
  }
  if (setting("kernel/apparmor_restrict_unprivileged_userns", 0) != 0) {
    return "AppArmor gives namespaces only to programs with a profile here "
           "(kernel.apparmor_restrict_unprivileged_userns); the package of zkturn installs one as "
           "/etc/apparmor.d/zkturn, and \"apparmor_parser -r /etc/apparmor.d/zkturn\" loads it";
  }
  return {};
}

std::string adviceOn(const SealStepFailure& failure) {
  const bool isRefused = failure.error == EPERM || failure.error == EACCES;
  if (failure.step == SealStep::tun) {
    return isRefused ? "/dev/net/tun is not for this user; as root, do what udev does elsewhere: "
                       "chmod 666 /dev/net/tun"
                     : "as root, load the driver with \"modprobe tun\", and make /dev/net/tun show "
                       "here if this is a container";
  }
  if (isRefused || failure.error == ENOSPC || failure.error == EUSERS) {
    if (std::string known = restriction(); !known.empty()) {
      return known;
    }
  }
  if (isRefused && (failure.step == SealStep::proc || failure.step == SealStep::sys)) {
    return "something masks a path below it, as containers do; run zkturn outside of the container";
  }
  if (isRefused || failure.error == EINVAL || failure.error == ENOSYS) {
    return "this system may keep user namespaces from programs like this one; try it outside of "
           "containers and sandboxes";
  }
  return {};
}

}  // namespace

std::string adviceFor(const SealStepFailure& failure) {
  std::string text = "cannot make the seal: " + failure.what;
  if (failure.error != 0) {
    text += fmt::format(": {}", errorText(failure.error));
  }
  const std::string advice = adviceOn(failure);
  return advice.empty() ? text : text + "; " + advice;
}

}  // namespace zk
