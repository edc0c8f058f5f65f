#include "Platform/Thread.h"

#include <pthread.h>

namespace zk {

std::thread startThread(const std::string& label, std::function<void()> body) {
  // A thread can only name itself.
  return std::thread([name = label, run = std::move(body)] {
    pthread_setname_np(name.c_str());
    run();
  });
}

}  // namespace zk
