#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Loopback/ChildProcess.h"

namespace zk::loopback {

/// The settings that a parent process gives to the daemon.
struct DaemonConfig {
  std::string proxyHost = "127.0.0.1";
  std::int64_t proxyPort = 0;
  std::string proxyUser{};  // empty: none is offered
  std::string proxyPassword{};
  std::string username = "alice";
  std::string credential = "wonderland";
  std::string realm = "zkturnd.test";

  /// The one line of JSON, with its line feed.
  std::string line() const;
};

/// The running daemon, as its parent process sees it.
class DaemonProcess : public ChildProcess {
 public:
  /// Starts `binary` and gives it nothing yet. Throws std::system_error.
  explicit DaemonProcess(const std::string& binary, const Environment& environment = {})
      : ChildProcess({binary}, environment) {}
  /// Any command that becomes the daemon.
  using ChildProcess::ChildProcess;

  /// Gives it that configuration and returns the port it serves on. Throws std::runtime_error with
  /// what the daemon says instead.
  std::uint16_t serve(const DaemonConfig& config);
  /// The port of the ready line, which must come within `timeout`; absent for any other line.
  /// The line itself is in statusLine() afterwards.
  std::optional<std::uint16_t> waitReady(Milliseconds timeout);
  const std::string& statusLine() const { return statusLine_; }

 private:
  std::string statusLine_;
};

}  // namespace zk::loopback
