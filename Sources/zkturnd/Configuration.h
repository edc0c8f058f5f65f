#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zk {

/// The SOCKS5 proxy through which all relayed traffic leaves.
struct ProxyConfig {
  std::string host;
  std::int64_t port = 0;  // as given; a bad one shows as a proxy that cannot be reached
  std::string user;       // empty: none is offered
  std::string pass;       // empty: none is offered
};

/// Which port of the proxy clients are told as their relay's.
enum class RelayedPort {
  assigned,  // the one of the proxy's answer
  mapped,    // the one that a STUN server saw
};

/// Settings for clients and proxies that the defaults do not suit.
struct Options {
  bool acceptFingerprint = false;  // requests may carry FINGERPRINT behind MESSAGE-INTEGRITY
  RelayedPort relayedPort = RelayedPort::assigned;
};

/// The whole configuration: the proxy, and the one credential that local clients must present.
struct Config {
  ProxyConfig proxy;
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
