#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/Task.h"

namespace zk {

/// Runs work one item at a time, in the order of submission: on a thread of its own that bears the
/// queue's label, or, when all that is queued is short, on a submitter's thread in its stead.
///
/// Handing an item to another thread and waking it costs about as much as sending a datagram. So
/// the thread of the queue is for work that takes its time, and is woken only when it sleeps; short
/// work that finds nobody at work is done where it is submitted. One lock per item on the
/// producers' side, one per batch on the worker's.
///
/// Destroying the queue runs what is still queued and ends the thread; a task of async() may do it,
/// a short one must not. A task must not throw.
class SerialQueue {
 public:
  /// Starts the thread; throws std::system_error when there is none to be had.
  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Queues `task` for the queue's thread and returns. Any thread, the queue's own included.
  void async(Task task);

  /// Queues `task`, which is short and waits for nobody. While nothing but such tasks is queued, a
  /// thread that submits one may run it, and those that others submit meanwhile, before it returns.
  void asyncShort(Task task);

  /// Runs `work`, which is short and waits for nobody, at once and in place if the queue is idle,
  /// and tells whether it did: asyncShort() for a caller that need not make a task of its own data.
  template <typename Work>
  bool runIfIdle(const Work& work) {
    if (!claimIfIdle()) {
      return false;
    }
    work();
    drainShortTasks();
    return true;
  }

  /// Runs `work` on the queue, behind all that was queued before, and returns when it has run. Not
  /// from the queue's own thread, which would wait for itself.
  void sync(const std::function<void()>& work);

  const std::string& label() const { return label_; }

 private:
  struct State;

  bool claimIfIdle();
  void drainShortTasks();

  const std::string label_;
  // Shared with the worker: when the last owner of the queue lets go of it inside a task, the
  // worker outlives this object.
  const std::shared_ptr<State> state_;
};

}  // namespace zk
