#include "Platform/Thread.h"

#include "Platform/posix/System.h"

namespace zk {

std::thread startThread(const std::string& label, std::function<void()> body) {
  // A thread can only name itself; until then it has its creator's name.
  return std::thread([name = label.substr(0, maxThreadName), run = std::move(body)] {
    nameThisThread(name.c_str());
    run();
  });
}

}  // namespace zk
