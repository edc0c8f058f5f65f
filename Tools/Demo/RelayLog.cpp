#include "Demo/RelayLog.h"

#include <filesystem>
#include <fstream>
#include <thread>

namespace zk::demo {
namespace {

constexpr std::chrono::milliseconds patience{1000};
constexpr std::chrono::milliseconds pause{20};

}  // namespace

RelayLog::RelayLog() {
  std::error_code error;
  const auto size = std::filesystem::file_size(daemonLog, error);
  start_ = error ? 0 : size;
}

std::optional<std::string> RelayLog::failureReason(std::uint16_t clientPort) const {
  const std::string attempt = "relay OPEN attempt for 127.0.0.1:" + std::to_string(clientPort);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    if (auto reason = lookFor(attempt)) {
      return reason;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(pause);
  }
}

std::optional<std::string> RelayLog::lookFor(const std::string& attempt) const {
  static const std::string failed = "relay OPEN FAILED both rungs: ";
  std::ifstream log(daemonLog);
  log.seekg(static_cast<std::streamoff>(start_));
  std::optional<std::string> reason;
  bool ours = false;  // another daemon may write to the same file
  for (std::string line; std::getline(log, line);) {
    if (line.find("relay OPEN attempt for ") != std::string::npos) {
      ours = line.find(attempt) != std::string::npos;
    } else if (const auto at = line.find(failed); ours && at != std::string::npos) {
      reason = line.substr(at + failed.size());
    }
  }
  return reason;
}

}  // namespace zk::demo
