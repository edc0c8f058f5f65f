#include "Platform/Process.h"

#include <atomic>
#include <cerrno>
#include <csignal>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Sockets.h"

namespace zk {
namespace {

// A pipe that becomes readable when it is time to stop. A signal handler may only touch what is
// lock-free and static.
Pipe& stopPipe() {
  static Pipe pipe = openPipe();
  return pipe;
}
std::atomic<int> stopWriter{-1};

void waitUntilReadable(int descriptor) {
  pollfd waiting{descriptor, POLLIN, 0};
  while (poll(&waiting, 1, -1) < 0 && errno == EINTR) {
  }
}

extern "C" void noteTermination(int /*signal*/) {
  const int savedErrno = errno;
  requestStop();
  errno = savedErrno;
}

void take(int signal) {
  stopWriter = stopPipe().writer.get();
  struct sigaction action {};
  action.sa_handler = noteTermination;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  sigset_t taken;
  sigemptyset(&taken);
  sigaddset(&taken, signal);
  sigprocmask(SIG_UNBLOCK, &taken, nullptr);  // a parent may hand it down blocked
}

}  // namespace

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
  const char octet = 0;
  // A full pipe is as good as a written one.
  [[maybe_unused]] const ssize_t written = write(stopWriter, &octet, 1);
}

void awaitStop() {
  waitUntilReadable(stopPipe().reader.get());
}

std::size_t readInput(std::span<char> into) {
  while (true) {
    const ssize_t got = read(STDIN_FILENO, into.data(), into.size());
    if (got >= 0) {
      return static_cast<std::size_t>(got);
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      waitUntilReadable(STDIN_FILENO);
    } else if (errno != EINTR) {
      return 0;
    }
  }
}

void writeOutput(std::string_view text) {
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
}

void keepFilesPrivate() {
  umask(077);
}

void endProcess(int status) {
  _exit(status);
}

}  // namespace zk
