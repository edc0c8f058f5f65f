#pragma once

#include <functional>
#include <string>
#include <thread>

namespace zk {

/// Starts a thread named `label` that runs `body`. Throws std::system_error when there is no thread
/// left.
std::thread startThread(const std::string& label, std::function<void()> body);

}  // namespace zk
