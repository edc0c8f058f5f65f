#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

namespace zk::loopback {

/// One thread that waits for many descriptors and for timers. What is owned by an object that lives
/// on a loop needs no lock: handlers, timers and sync() all run on the loop's thread.
class EventLoop {
 public:
  explicit EventLoop(const std::string& label);
  /// Stops.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Calls `handler` whenever `descriptor` has something to read, its end included. The descriptor
  /// must be non-blocking, as a handler may be called once too often. Loop's thread only.
  void watch(int descriptor, std::function<void()> handler);
  /// Ends that; before the descriptor is closed. Loop's thread only.
  void unwatch(int descriptor);
  /// Runs `action` once after `delay`, at once when it is 0. What is still waiting when the loop
  /// stops is dropped. Loop's thread only.
  void after(std::chrono::milliseconds delay, std::function<void()> action);

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
  /// Ends the thread. May be called again.
  void stop();

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace zk::loopback
