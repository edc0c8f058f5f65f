#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace zk::demo {

/// The files that the daemon writes.
inline constexpr const char* daemonLog = "/tmp/zkturnd.log";
inline constexpr const char* dataPlaneLog = "/tmp/zkturnd-dp.log";
inline constexpr const char* egressLog = "/tmp/zk-egress.log";

/// Reads in the daemon's log why it could not open a relay.
class RelayLog {
 public:
  /// Looks only at what is written from now on.
  RelayLog();
  /// The reason of the last failed opening for the client at that port of the loopback. Waits a
  /// little, as the daemon writes its log behind its answers; absent when no such line comes.
  std::optional<std::string> failureReason(std::uint16_t clientPort) const;

 private:
  std::optional<std::string> lookFor(const std::string& attempt) const;

  std::uintmax_t start_ = 0;
};

}  // namespace zk::demo
