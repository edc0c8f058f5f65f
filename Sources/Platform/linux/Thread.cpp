#include "Platform/Thread.h"

#include <pthread.h>

namespace zk {

std::thread startThread(const std::string& label, std::function<void()> body) {
  // The kernel keeps 15 octets of a thread's name and refuses longer ones. The thread names
  // itself: until then it bears the name of its creator.
  return std::thread([name = label.substr(0, 15), run = std::move(body)] {
    pthread_setname_np(pthread_self(), name.c_str());
    run();
  });
}

}  // namespace zk
