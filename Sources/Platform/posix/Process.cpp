#include "Platform/Process.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "Platform/StopSignal.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

// What ends awaitStop(). A signal handler may only touch what is lock-free and static.
std::atomic<StopSignal*> stopRequest{nullptr};

extern "C" void noteTermination(int /*signal*/) {
  const int savedErrno = errno;
  requestStop();
  errno = savedErrno;
}

void take(int signal) {
  static StopSignal request;
  stopRequest = &request;
  struct sigaction action {};
  action.sa_handler = noteTermination;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  require(sigaction(signal, &action, nullptr) == 0, "sigaction");
  sigset_t taken;
  sigemptyset(&taken);
  sigaddset(&taken, signal);
  sigprocmask(SIG_UNBLOCK, &taken, nullptr);  // a parent may hand it down blocked
}

}  // namespace

void prepareProcess() {
  int opened = open("/dev/null", O_RDWR);
  while (opened >= 0 && opened <= STDERR_FILENO) {
    opened = dup(opened);
  }
  closeInherited();
  returnLargeBlocksAtOnce();
  raiseDescriptorLimit();
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void raiseDescriptorLimit() {
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    descriptors.rlim_cur = std::max(descriptors.rlim_cur, mostDescriptors(descriptors.rlim_max));
    setrlimit(RLIMIT_NOFILE, &descriptors);
  }
}

void takeTerminationSignal() {
  take(SIGTERM);
}

void takeInterrupts() {
  take(SIGINT);
  struct sigaction present {};
  sigaction(SIGHUP, nullptr, &present);
  if (present.sa_handler != SIG_IGN) {
    take(SIGHUP);
  }
}

void requestStop() {
  stopRequest.load()->raise();
}

void awaitStop() {
  while (waitFor(-1, 0, Deadline::max(), stopRequest) != Wait::stopped) {
    std::this_thread::sleep_for(
        std::chrono::milliseconds(10));  // poll() failed, for lack of memory say
  }
}

std::size_t readInput(std::span<char> into) {
  while (true) {
    const ssize_t got = read(STDIN_FILENO, into.data(), into.size());
    if (got >= 0) {
      return static_cast<std::size_t>(got);
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      waitFor(STDIN_FILENO, POLLIN, Deadline::max());
    } else if (errno != EINTR) {
      return 0;
    }
  }
}

void writeOutput(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (waitFor(STDOUT_FILENO, POLLOUT, Deadline::max(), stopRequest) == Wait::stopped) {
        return;
      }
    } else if (errno != EINTR) {
      return;
    }
  }
}

void keepFilesPrivate() {
  umask(077);
}

void endProcess(int status) {
  _exit(status);
}

}  // namespace zk
