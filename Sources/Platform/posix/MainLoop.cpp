#include "Platform/MainLoop.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace zk {
namespace {

// Both ends of the self-pipe. A signal handler may only touch what is lock-free and static; one
// octet in the pipe means "look again".
std::atomic<int> wakeUpWriter{-1};
int wakeUpReader = -1;
std::array<std::atomic<bool>, NSIG> raised{};

std::mutex actionsLock;
std::vector<std::function<void()>> actions;     // guarded by actionsLock
std::map<int, std::function<void()>> handlers;  // the loop's thread only

void wakeUp() {
  const std::uint8_t octet = 0;
  // A full pipe is as good as a written one: the loop has a reason to look.
  [[maybe_unused]] const ssize_t written = write(wakeUpWriter, &octet, 1);
}

extern "C" void noteSignal(int signal) {
  const int savedErrno = errno;
  raised[static_cast<std::size_t>(signal)] = true;
  wakeUp();
  errno = savedErrno;
}

}  // namespace

MainLoop::MainLoop() {
  if (wakeUpWriter >= 0) {
    return;
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    std::abort();  // nothing works without descriptors, and nobody is there to be told yet
  }
  wakeUpReader = ends[0];
  wakeUpWriter = ends[1];
}

void MainLoop::onSignal(int signal, std::function<void()> handler) {
  handlers[signal] = std::move(handler);
  struct sigaction action {};
  action.sa_handler = noteSignal;
  action.sa_flags = SA_RESTART;  // blocking receives on other threads go on
  sigfillset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

void MainLoop::async(std::function<void()> action) {
  {
    const std::lock_guard guard(actionsLock);
    actions.push_back(std::move(action));
  }
  wakeUp();
}

void MainLoop::run() {
  while (true) {
    pollfd waiting{wakeUpReader, POLLIN, 0};
    poll(&waiting, 1, -1);
    std::uint8_t octets[64];
    while (read(wakeUpReader, octets, sizeof octets) > 0) {
    }
    for (const auto& [signal, handler] : handlers) {
      if (raised[static_cast<std::size_t>(signal)].exchange(false)) {
        handler();
      }
    }
    std::vector<std::function<void()>> batch;
    {
      const std::lock_guard guard(actionsLock);
      batch.swap(actions);
    }
    for (const auto& action : batch) {
      action();
    }
  }
}

}  // namespace zk
