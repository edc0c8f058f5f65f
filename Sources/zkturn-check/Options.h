#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zk::check {

/// A host, by name or address, and a port.
struct Endpoint {
  std::string host;
  std::uint16_t port = 0;

  std::string text() const;
};

struct Options {
  Endpoint proxy;
  std::optional<std::string> user;
  std::optional<std::string> password;
  std::vector<Endpoint> stunServers;  // numeric; the well-known ones when there are none
  unsigned count = 20;
  unsigned idleSeconds = 5;
  unsigned timeoutSeconds = 10;  // for the connection and each of the proxy's answers
  bool viaDefault = false;
  bool asJSON = false;
};

/// Reads the command line. Absent when it asked for nothing but help or the version, which is
/// printed then. Throws std::runtime_error with one sentence for people.
std::optional<Options> readOptions(int argc, const char* const* argv);

}  // namespace zk::check
