#pragma once

#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

namespace zk {

/// One address that a name resolved to, ready for socket() and connect().
struct ResolvedAddress {
  int family;
  int type;
  int protocol;
  sockaddr_storage address;
  socklen_t length;
};

/// What the resolver found, in its order. `error` is the resolver's message text when it found
/// nothing, and empty otherwise.
struct Resolution {
  std::vector<ResolvedAddress> addresses;
  std::string error;
};

/// Stream addresses of any family for a TCP connection to host:port. Blocks as long as the
/// system's resolver does.
Resolution resolveTCP(const std::string& host, const std::string& port);

/// IPv4 datagram addresses of host:port.
Resolution resolveUDPv4(const std::string& host, const std::string& port);

}  // namespace zk
