#include "Platform/Thread.h"

#include "Platform/posix/System.h"

namespace zk {

std::thread startThread(const std::string& label, std::function<void()> body) {
  // The thread names itself: until then it bears the name of its creator.
  return std::thread([name = label.substr(0, maxThreadName), run = std::move(body)] {
    nameThisThread(name.c_str());
    run();
  });
}

}  // namespace zk
