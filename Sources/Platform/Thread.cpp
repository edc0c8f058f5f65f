#include "Platform/Thread.h"

#include <mutex>

#include <pthread.h>

namespace zk {
namespace {

// What receives datagrams keeps room for several of the largest on its stack.
constexpr std::size_t leastStack = 2 << 20;  // octets

// The default is the parent's limit for the stack (`ulimit -s`), which may be any size.
void raiseDefaultStack() {
  pthread_attr_t attributes;
  std::size_t size = 0;
  if (pthread_getattr_default_np(&attributes) == 0) {
    if (pthread_attr_getstacksize(&attributes, &size) == 0 && size < leastStack) {
      pthread_attr_setstacksize(&attributes, leastStack);
      pthread_setattr_default_np(&attributes);
    }
    pthread_attr_destroy(&attributes);
  }
}

}  // namespace

std::thread startThread(const std::string& label, std::function<void()> body) {
  static std::once_flag raised;
  std::call_once(raised, raiseDefaultStack);
  // The kernel keeps 15 octets of a thread's name and refuses longer ones. The thread names
  // itself: until then it bears the name of its creator.
  return std::thread([name = label.substr(0, 15), run = std::move(body)] {
    pthread_setname_np(pthread_self(), name.c_str());
    run();
  });
}

}  // namespace zk
