#pragma once

#include <cstdint>
#include <string>

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

}  // namespace zk::loopback
