#pragma once

#include <csignal>
#include <functional>

namespace zk {

/// The event loop of the main thread: it runs queued actions and signal handlers there, one at a
/// time, for ever. There is one per process, since signal dispositions are the process's.
class MainLoop {
 public:
  MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// From now on `signal` does nothing but run `handler` in the loop. Before run(), on its thread.
  void onSignal(int signal, std::function<void()> handler);

  /// Queues `action` and returns. Any thread.
  void async(std::function<void()> action);

  [[noreturn]] void run();
};

}  // namespace zk
