#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/Task.h"

namespace zk {

/// Runs work one item at a time, in the order of submission: on a thread of its own that bears the
/// queue's label, or, for short work and while that thread has nothing to do, on the submitter's.
///
/// The producers' side costs one lock per item, the worker's side one per batch; the worker is
/// woken only when it sleeps. Destroying the queue runs what is still queued and ends the thread.
/// A task must not throw.
class SerialQueue {
 public:
  /// Starts the thread; throws std::system_error when there is none to be had.
  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Queues `task` and returns. Any thread, the queue's own included.
  void async(Task task);

  /// Runs `work` at once and in place when the queue is idle, and tells whether it did. For work
  /// that is short and waits for nobody: handing a datagram to another thread costs as much as
  /// sending it. Whoever submits meanwhile queues behind it.
  template <typename Work>
  bool runIfIdle(const Work& work) {
    if (!claimIfIdle()) {
      return false;
    }
    work();
    releaseClaim();
    return true;
  }

  /// Runs `work` on the queue, behind all that was queued before, and returns when it has run. Not
  /// from the queue's own thread, which would wait for itself.
  void sync(const std::function<void()>& work);

  const std::string& label() const { return label_; }

 private:
  struct State;

  bool claimIfIdle();
  void releaseClaim();

  const std::string label_;
  // Shared with the worker: when the last owner of the queue lets go of it inside a task, the
  // worker outlives this object.
  const std::shared_ptr<State> state_;
};

}  // namespace zk
