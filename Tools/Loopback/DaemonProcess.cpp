#include "Loopback/DaemonProcess.h"

#include <stdexcept>

#include <nlohmann/json.hpp>

namespace zk::loopback {

std::string DaemonConfig::line() const {
  const nlohmann::json config{
      {"proxy",
       {{"host", proxyHost}, {"port", proxyPort}, {"user", proxyUser}, {"pass", proxyPassword}}},
      {"realm", realm},
      {"username", username},
      {"credential", credential}};
  return config.dump() + "\n";
}

std::uint16_t DaemonProcess::serve(const DaemonConfig& config) {
  write(config.line());
  const auto port = waitReady(std::chrono::seconds(10));
  if (!port) {
    throw std::runtime_error("the daemon does not start: " +
                             (statusLine_.empty() ? "it says nothing" : statusLine_));
  }
  return *port;
}

std::optional<std::uint16_t> DaemonProcess::waitReady(Milliseconds timeout) {
  statusLine_ = readLine(timeout).value_or("");
  const auto status = nlohmann::json::parse(statusLine_, nullptr, false);
  if (!status.is_object() || status.value("status", "") != "ready" || !status.contains("port")) {
    return std::nullopt;
  }
  return status["port"].get<std::uint16_t>();
}

}  // namespace zk::loopback
