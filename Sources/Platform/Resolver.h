#pragma once

#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

#include "Platform/Sockets.h"

namespace zk {

/// One address that a name resolved to, with its port.
struct ResolvedAddress {
  int family;
  sockaddr_storage address;
};

/// What the resolver found, in its order. `error` is the reason when it found nothing, and empty
/// otherwise.
struct Resolution {
  std::vector<ResolvedAddress> addresses;
  std::string error;
};

/// Stream addresses of any family for a TCP connection to host:port. The system's resolver has no
/// time limit, so it is asked on a thread of its own, which is abandoned when the deadline passes
/// or `stop` is raised first. Never throws, and does no lookup for a numeric address.
Resolution resolveTCP(const std::string& host, const std::string& port, Deadline deadline,
                      const StopSignal* stop);

/// IPv4 datagram addresses of host:port, in the same way.
Resolution resolveUDPv4(const std::string& host, const std::string& port, Deadline deadline,
                        const StopSignal* stop);

}  // namespace zk
