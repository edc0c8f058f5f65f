#pragma once

#include <functional>
#include <string>
#include <thread>

namespace zk {

/// A thread named `label` that runs `body`. Throws std::system_error when the system has no thread
/// to give.
std::thread startThread(const std::string& label, std::function<void()> body);

}  // namespace zk
