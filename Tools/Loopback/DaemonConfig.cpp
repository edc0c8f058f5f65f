#include "Loopback/DaemonConfig.h"

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

}  // namespace zk::loopback
