#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "ZelkorSOCKS5/Association.h"

namespace zk {

/// Settings for clients and proxies that the defaults do not suit.
struct Options {
  bool acceptFingerprint = false;  // requests may carry FINGERPRINT behind MESSAGE-INTEGRITY
  // Clients are told the port that a STUN server saw, not the one of the proxy's answer.
  bool reportsMappedPort = false;
};

/// The proxy, as the relays take it.
using ProxyConfig = SOCKS5Proxy;

/// The whole configuration: the proxy, and the one credential that local clients must present.
struct Config {
  ProxyConfig proxy;  // its port as given: a bad one shows as a proxy that cannot be reached
  std::string realm;
  std::string username;
  std::string credential;  // the password that goes with username
  Options options;
};

/// Says in one line what is wrong with a configuration. Keys are named by their path; values are
/// never quoted, as they are secrets.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Decodes one line of UTF-8: a JSON object with all eight keys and perhaps "options". Throws
/// ConfigError.
Config decodeConfig(std::string_view line);

/// Reads the first line of standard input and decodes it. On any failure it prints the error line
/// and ends the process, so there is nothing for the caller to handle. Whoever is at a terminal is
/// told on standard error what the daemon waits for.
Config readConfig();

}  // namespace zk
