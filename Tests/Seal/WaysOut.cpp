// A program that tries everything by which one could get out of a seal, and says of each way
// whether it led out: "NAME open" or "NAME closed". Outside of a seal all of them are open, or the
// test that uses it proves nothing.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netdb.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// ---- Packets: whether they got anywhere is for the wire to say ----

sockaddr_in v4(const char* ip, int port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, ip, &to.sin_addr);
  return to;
}

void sendDatagram(const char* ip, int port) {
  const int udp = socket(AF_INET, SOCK_DGRAM, 0);
  const int one = 1;
  setsockopt(udp, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
  const sockaddr_in to = v4(ip, port);
  sendto(udp, "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  close(udp);
}

void tryConnect(const char* ip, int port) {
  const int tcp = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  const sockaddr_in to = v4(ip, port);
  connect(tcp, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  usleep(50'000);
  close(tcp);
}

void sendEverywhere() {
  for (const char* const ip : {"198.51.100.11", "203.0.113.1", "10.1.0.1", "192.168.1.1",
                               "224.0.0.251", "239.255.255.250", "255.255.255.255"}) {
    sendDatagram(ip, 5353);
    sendDatagram(ip, 53);
  }
  for (const char* const ip : {"203.0.113.1", "10.1.0.1"}) {
    tryConnect(ip, 7000);
  }
  const int v6 = socket(AF_INET6, SOCK_DGRAM, 0);
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(53);
  inet_pton(AF_INET6, "fd00:1::1", &to.sin6_addr);
  sendto(v6, "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  close(v6);
  addrinfo* found = nullptr;
  if (getaddrinfo("leak.example", "80", nullptr, &found) == 0) {
    freeaddrinfo(found);
  }
}

// ---- Doors: who answers behind a socket is outside ----

bool opens(const char* path, bool isAbstract = false) {
  const int door = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  std::strncpy(to.sun_path + isAbstract, path, sizeof to.sun_path - 2);
  const auto length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + isAbstract + std::strlen(path));
  const bool isOpen = connect(door, reinterpret_cast<const sockaddr*>(&to), length) == 0;
  close(door);
  return isOpen;
}

// Is the program behind such a door.
int serve(const char* path) {
  const int door = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un at{};
  at.sun_family = AF_UNIX;
  const bool isAbstract = *path == '@';
  std::strncpy(at.sun_path + isAbstract, path + isAbstract, sizeof at.sun_path - 2);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  unlink(path);
  if (bind(door, reinterpret_cast<const sockaddr*>(&at), length) != 0 || listen(door, 50) != 0) {
    std::perror(path);
    return 1;
  }
  chmod(path, 0777);
  std::puts("listens");
  std::fflush(stdout);
  pause();
  return 0;
}

// ---- The system's calls ----

// 64 bits, of which the kernel takes 32: a filter must do the same.
bool ioctlPasses(unsigned long request) {
  char octet = 'x';
  return syscall(SYS_ioctl, STDIN_FILENO, request | 1UL << 32, &octet) == 0 || errno != EPERM;
}

bool familyOpens(int family, int type, int protocol = 0) {
  const int made = socket(family, type, protocol);
  const int error = errno;
  close(made);
  return made >= 0 || (error != EAFNOSUPPORT && error != EPERM);
}

bool attachesToFirst() {
  const bool isAttached = ptrace(PTRACE_ATTACH, 1, nullptr, nullptr) == 0;
  if (isAttached) {
    waitpid(1, nullptr, 0);
    ptrace(PTRACE_DETACH, 1, nullptr, nullptr);
  }
  return isAttached;
}

bool takesDescriptorOfFirst() {
  const auto first = static_cast<int>(syscall(SYS_pidfd_open, 1, 0));
  for (int number = 0; number < 20; ++number) {
    if (syscall(SYS_pidfd_getfd, first, number, 0) >= 0) {
      return true;
    }
  }
  return false;
}

bool readsMemoryOfFirst() {
  char mine[8];
  iovec to{mine, sizeof mine};
  iovec from{reinterpret_cast<void*>(&mine), sizeof mine};
  return process_vm_readv(1, &to, 1, &from, 1, 0) >= 0 || errno != EPERM;
}

// What a namespace of its own lets a process do there.
template <typename Work>
bool inNewNamespaces(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && work() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0;
}

// By the numbers that 32-bit programs have for them, where this processor knows such.
bool takesOtherCalls() {
  const pid_t child = fork();
  if (child == 0) {
    long answer = -1;
#if defined(__x86_64__)
    answer = 20;  // getpid
    __asm__ volatile("int $0x80" : "+a"(answer) : : "memory");
#endif
    _exit(static_cast<int>(answer) > 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0;
}

bool holdsCapabilities() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Cap") && line.find_first_of("123456789abcdef", 7) != line.npos) {
      return true;
    }
  }
  return false;
}

bool makesTun(short flags) {
  const int tun = open("/dev/net/tun", O_RDWR);
  ifreq request{};
  std::strcpy(request.ifr_name, "eth0");
  request.ifr_flags = flags;
  return ioctl(tun, TUNSETIFF, &request) == 0;
}

bool becomesRoot(const char* setuidProgram) {
  const pid_t child = fork();
  if (child == 0) {
    execl(setuidProgram, setuidProgram, "--am-i-root", nullptr);
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0;
}

bool showsInterfaces(const char* folder) {
  bool isOther = false;
  if (DIR* const list = opendir(folder)) {
    while (const dirent* const entry = readdir(list)) {
      const std::string name = entry->d_name;
      isOther |= name != "." && name != ".." && name != "lo" && name != "eth0";
    }
    closedir(list);
  }
  return isOther;
}

void leaveBehind(const char* heartbeat) {
  if (fork() == 0) {
    setsid();
    if (fork() == 0) {
      std::ofstream("/tmp/left-behind") << getpid();
      for (int beat = 0; beat < 600; ++beat) {
        std::ofstream(heartbeat) << beat;
        sendDatagram("198.51.100.11", 7000);
        usleep(50'000);
      }
    }
    _exit(0);
  }
  wait(nullptr);
}

void tell(const char* name, bool isOpen) {
  std::printf("%s %s\n", name, isOpen ? "open" : "closed");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "--am-i-root") {
    return geteuid() == 0 ? 0 : 1;
  }
  if (mode == "--listen") {
    return serve(argv[2]);
  }
  if (mode == "--opens") {
    for (int i = 2; i < argc; ++i) {
      tell(argv[i], opens(argv[i]));
    }
    return 0;
  }
  leaveBehind("/tmp/heartbeat");
  sendEverywhere();
  std::ofstream("/tmp/started") << "now";
  while (access("/tmp/go", F_OK) != 0) {
    usleep(10'000);
  }
  tell("a service's socket", opens("/run/service/socket"));
  tell("one by a relative name", opens("bus"));
  tell("one of a service that starts later", opens("/run/later/socket"));
  tell("one in the user's own folder", opens("/run/user/65534/bus"));
  tell("one in /tmp", opens("/tmp/agent"));
  tell("one of another network", opens("/tmp/elsewhere"));
  tell("one that is made anew in its own folder", opens("/tmp/multiplexer/socket"));
  tell("an abstract one", opens("service", true));
  tell("an inherited socket", send(5, "x", 1, MSG_NOSIGNAL) == 1);
  tell("typing into the terminal", ioctlPasses(TIOCSTI));
  tell("pasting into the console", ioctlPasses(TIOCLINUX));
  tell("io_uring", syscall(SYS_io_uring_setup, 1, nullptr) >= 0 || errno == EFAULT);
  tell("request_key", syscall(SYS_request_key, "user", "x", nullptr, 0) >= 0 || errno != EPERM);
  tell("another family", familyOpens(AF_VSOCK, SOCK_STREAM) || familyOpens(AF_ALG, SOCK_SEQPACKET));
  tell("calls of 32-bit programs", takesOtherCalls());
  tell("capabilities", holdsCapabilities());
  tell("a setuid program", becomesRoot("/tmp/setuid"));
  tell("attaching to process 1", attachesToFirst());
  tell("a descriptor of process 1", takesDescriptorOfFirst());
  tell("the memory of process 1", readsMemoryOfFirst());
  tell("a second opening of the tun", makesTun(IFF_TUN | IFF_NO_PI));
  tell("another queue of the tun", makesTun(IFF_TUN | IFF_NO_PI | IFF_MULTI_QUEUE));
  tell("the machine's interfaces", showsInterfaces("/sys/class/net"));
  tell("what lies under /run", inNewNamespaces([] {
         return umount2("/run", MNT_DETACH) == 0 && opens("/run/service/socket");
       }));
  tell("what lies under /proc", inNewNamespaces([] { return umount2("/proc", MNT_DETACH) == 0; }));
  std::fflush(stdout);
  return 0;
}
