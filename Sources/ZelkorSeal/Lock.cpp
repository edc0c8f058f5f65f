// What a program without privileges can still do to the world outside its namespaces by system
// calls alone is little enough to stand in one table.

#include "ZelkorSeal/Lock.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ZelkorSeal/Steps.h"

namespace zk {
namespace {

#if defined(__x86_64__)
constexpr std::uint32_t nativeCalls = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t nativeCalls = AUDIT_ARCH_AARCH64;
#elif defined(__riscv) && __riscv_xlen == 64
constexpr std::uint32_t nativeCalls = AUDIT_ARCH_RISCV64;
#else
#error "name the system calls' convention of this processor"
#endif
constexpr std::uint32_t otherConvention = 0x40000000;  // x32's numbers, beyond all others

constexpr sock_filter load(std::size_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}
// The next `skipped` are passed over unless the loaded number equals `value`.
constexpr sock_filter unlessEqual(std::uint32_t value, std::uint8_t skipped) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, skipped);
}
constexpr sock_filter unlessAtLeast(std::uint32_t value, std::uint8_t skipped) {
  return BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, value, 0, skipped);
}
constexpr sock_filter ifEqual(std::uint32_t value, std::uint8_t skipped) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, skipped, 0);
}
constexpr sock_filter refuse(std::uint32_t error) {
  return BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error);
}
constexpr sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);

constexpr std::size_t numberOfCall = offsetof(seccomp_data, nr);
// The kernel takes families and requests as 32 bits; what a program writes above them counts for
// nothing. The low half comes first on all processors above.
constexpr std::size_t firstArgument = offsetof(seccomp_data, args);
constexpr std::size_t secondArgument = firstArgument + sizeof(std::uint64_t);

constexpr std::array filter{
    // Other conventions number the calls otherwise, and one passes all of a socket's in memory,
    // where no filter sees them: 32-bit programs do not run here.
    load(offsetof(seccomp_data, arch)),
    ifEqual(nativeCalls, 1),
    refuse(ENOSYS),
    load(numberOfCall),
    unlessAtLeast(otherConvention, 1),
    refuse(ENOSYS),
    // It opens sockets of any family by itself.
    unlessEqual(SYS_io_uring_setup, 1),
    refuse(ENOSYS),
    // Has the kernel start a program outside, which may look up names.
    unlessEqual(SYS_request_key, 1),
    refuse(EPERM),
    // These type into the terminal, and so into the shell outside.
    unlessEqual(SYS_ioctl, 5),
    load(secondArgument),
    ifEqual(TIOCSTI, 1),
    unlessEqual(TIOCLINUX, 1),
    refuse(EPERM),
    allow,
    // Others know nothing of namespaces: VSOCK, Bluetooth, and what is yet to come.
    ifEqual(SYS_socket, 1),
    unlessEqual(SYS_socketpair, 6),
    load(firstArgument),
    ifEqual(AF_UNIX, 4),
    ifEqual(AF_INET, 3),
    ifEqual(AF_INET6, 2),
    ifEqual(AF_NETLINK, 1),
    refuse(EAFNOSUPPORT),
    allow,
};

void dropCapabilities() {
  constexpr int mostCapabilities = 64;
  // An invalid one comes after the last that this kernel knows.
  for (int capability = 0; capability < mostCapabilities; ++capability) {
    if (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0) {
      requireStep(errno == EINVAL && capability > CAP_SYS_ADMIN, SealStep::lock,
                  "drop the bounding capabilities");
      break;
    }
  }
  requireStep(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0, SealStep::lock,
              "drop the ambient capabilities");
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  requireStep(syscall(SYS_capset, &header, none.data()) == 0, SealStep::lock,
              "drop all capabilities");
}

}  // namespace

void lockProcess() {
  dropCapabilities();
  requireStep(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, SealStep::lock,
              "renounce new privileges");
  const sock_fprog program{static_cast<unsigned short>(filter.size()),
                           const_cast<sock_filter*>(filter.data())};
  requireStep(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0, SealStep::lock,
              "filter the system calls");
}

}  // namespace zk
