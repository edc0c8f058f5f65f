#include "Loopback/LoopThread.h"

#include <future>
#include <utility>

#include "Platform/Thread.h"

namespace zk::loopback {

LoopThread::LoopThread(const std::string& label, EventLoop::Clock clock)
    : loop_(std::move(clock)), thread_(startThread(label, [this] { loop_.run(); })) {}

void LoopThread::sync(const std::function<void()>& work) const {
  std::packaged_task<void()> task(work);
  {
    const std::lock_guard guard(lock_);
    if (thread_.joinable()) {
      loop_.post([&task] { task(); });
    } else {
      task();
    }
  }
  task.get_future().get();
}

void LoopThread::stop() {
  const std::lock_guard guard(lock_);
  if (thread_.joinable()) {
    loop_.post([this] { loop_.stop(); });  // behind all that sync() waits for
    thread_.join();
  }
}

}  // namespace zk::loopback
