#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include <netinet/in.h>

#include "ZelkorTURN/TURNAttributes.h"

namespace zk::demo {

/// A proxy that the user named.
struct ProxyChoice {
  std::string host;
  std::uint16_t port = 0;
  std::string user;  // empty: none
  std::string password;
};

/// What the command line asks for.
struct Options {
  std::optional<ProxyChoice> proxy;             // absent: the kit's own
  std::optional<TURNAttributes::Address> peer;  // absent: the kit's echo peer
  bool help = false;
};

/// A command line that cannot be followed; what() says why in one sentence.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

extern const char* const usage;

/// Throws UsageError.
Options parseOptions(int count, char** arguments);

/// The IPv4 address of the proxy: the first that its name resolves to. Throws UsageError when there
/// is none.
sockaddr_in resolveProxy(const ProxyChoice& proxy);

}  // namespace zk::demo
