#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Base/Endpoint.h"

namespace zk {

/// The command line, or a file that it names, is wrong. what() is one sentence for people that says
/// what to do, and holds no secret.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Which proxy, and how to go about it: the same for every verb.
struct ProxyOptions {
  HostPort proxy;
  std::optional<std::string> user;    // with it
  std::string passFile;               // where its password is: readPassword()
  std::vector<Endpoint> stunServers;  // the well-known ones when there are none
  unsigned timeoutSeconds = 10;       // for each step towards the proxy
  bool viaDefault = false;            // the control connection follows the routes
};

/// Reads PROXY: HOST:PORT or [IPv6]:PORT, with socks5:// or socks5h:// before it or without. Throws
/// UsageError, for a login in it too, which it does not repeat.
HostPort parseProxy(std::string_view text);

/// Takes address, user and pass file from ~/.config/zkturn/proxy when the command line has named no
/// proxy. Whether there is such a file; throws UsageError when it is wrong.
bool readProxyFile(ProxyOptions& options);

/// The password that goes with `options.user`; absent without one. It is the first line of the pass
/// file, which nobody else may be able to read, or for "-" what is typed at the terminal. Throws
/// UsageError. Asks each time: call it once.
std::optional<std::string> readPassword(const ProxyOptions& options);

}  // namespace zk
