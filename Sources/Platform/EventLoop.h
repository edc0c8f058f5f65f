#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "Platform/Mutex.h"
#include "Platform/Poller.h"

namespace zk {

/// Waits for descriptors, timers and tasks of other threads, and calls back on one thread, that of
/// run(). Whoever is called back must not wait for anything.
///
/// Descriptors take turns: each that is readable is called back once before any is again. All
/// operations but post(), stop() and the constructor belong to the loop's thread, or to one thread
/// while the loop does not run.
class EventLoop {
 public:
  /// Who is told that a descriptor is readable, or has ended or failed, which reading it shows; or
  /// writable, which a failed one is as well. It may unwatch and destroy itself or others
  /// meanwhile.
  class Source {
   public:
    virtual void onReadable() = 0;
    virtual void onWritable() {}

   protected:
    ~Source() = default;
  };
  using Task = std::function<void()>;
  /// Nanoseconds on a clock that only runs forward.
  using Clock = std::function<std::uint64_t()>;
  using TimerID = std::pair<std::uint64_t, std::uint64_t>;  // when, in that clock, and which

  /// Throws std::system_error when the system has no descriptor to give. Timers go by `clock`.
  explicit EventLoop(Clock clock) : clock_(std::move(clock)) {}

  /// Calls `source` whenever `descriptor` is readable, until unwatch(). Throws std::system_error
  /// when the system refuses.
  void watch(int descriptor, Source& source);
  /// Calls the source of a watched descriptor for these from now on, in place of `readable` alone:
  /// whenever it is, as long as it is. Failed alone counts as readable. Throws std::system_error
  /// when the system refuses.
  using Interest = Poller::Interest;
  void setInterest(int descriptor, Interest interest);
  /// No call back for `descriptor` begins after this. Before the descriptor is closed.
  void unwatch(int descriptor);

  /// What the clock of the timers shows.
  std::uint64_t now() const { return clock_(); }
  /// Runs `task` once, `delay` from now or a little later.
  TimerID after(std::chrono::nanoseconds delay, Task task);
  /// Forgets a timer. Does nothing when it has run already.
  void cancel(TimerID timer);

  /// Runs `task` at the end of every round, before the loop may wait again: the place to send what
  /// the round has gathered. Before run().
  void atEndOfRound(Task task) { endOfRound_ = std::move(task); }

  /// Has the loop run `task`; tasks run in the order of posting. Any thread. A task posted after
  /// the loop has ended is dropped with the loop.
  void post(Task task);

  /// Serves until stop().
  void run();
  /// Ends run() after the call back that is under way. Any thread.
  void stop();

  /// One round: what is ready and due now, waiting for it first when `mayWait`.
  void turn(bool mayWait);

 private:
  void runDueTimers();
  void runPosted();
  void setTimer();

  const Clock clock_;
  struct Watched {
    Source* source = nullptr;
    Interest interest;
  };
  Poller poller_;
  std::vector<Watched> sources_;  // by descriptor
  std::vector<int> ready_;        // of the round at hand
  std::vector<int> writable_;
  std::map<TimerID, Task> timers_;
  std::uint64_t timersMade_ = 0;
  static constexpr std::uint64_t never = UINT64_MAX;
  std::uint64_t wakesAt_ = never;  // for a timer
  Task endOfRound_;
  std::atomic<bool> stopping_{false};

  Mutex lock_;
  std::vector<Task> posted_ GUARDED_BY(lock_);
};

}  // namespace zk
