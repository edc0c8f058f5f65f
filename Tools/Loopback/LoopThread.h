#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>

#include "Platform/Clock.h"
#include "Platform/EventLoop.h"

namespace zk::loopback {

/// An event loop on a thread of its own. What lives on the loop needs no lock: whom it calls back,
/// its timers and sync() all run on the loop's thread.
class LoopThread {
 public:
  /// Timers go by `clock`.
  explicit LoopThread(const std::string& label, EventLoop::Clock clock = monotonicNanoseconds);
  /// Stops.
  ~LoopThread() { stop(); }

  /// For the loop's thread, and for everybody once it has stopped.
  EventLoop& loop() { return loop_; }

  /// Runs `work` on the loop's thread and returns when it has run; on the caller's thread once the
  /// loop has stopped. Any thread but the loop's own.
  void sync(const std::function<void()>& work) const;
  /// The same for a question with an answer.
  template <typename Question>
  auto ask(const Question& question) const {
    std::invoke_result_t<Question> answer{};
    sync([&] { answer = question(); });
    return answer;
  }
  /// Ends the thread. What waits for a timer is dropped. May be called again.
  void stop();

 private:
  mutable EventLoop loop_;
  mutable std::mutex lock_;
  std::thread thread_;  // guarded by lock_
};

/// Calls `handler` whenever `descriptor` has something to read, its end included, for as long as
/// this lives. To be made and destroyed on the loop's thread, also by the handler, and before the
/// descriptor is closed.
class Watch final : private EventLoop::Source {
 public:
  Watch(EventLoop& loop, int descriptor, std::function<void()> handler)
      : loop_(loop), descriptor_(descriptor), handler_(std::move(handler)) {
    loop_.watch(descriptor_, *this);
  }
  ~Watch() { loop_.unwatch(descriptor_); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

 private:
  void onReadable() override { handler_(); }

  EventLoop& loop_;
  const int descriptor_;
  const std::function<void()> handler_;
};

}  // namespace zk::loopback
