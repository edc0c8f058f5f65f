#include "Platform/Resolver.h"

#include <algorithm>
#include <cstring>

#include <netdb.h>

namespace zk {
namespace {

Resolution resolve(const std::string& host, const std::string& port, int family, int type,
                   int protocol) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = type;
  hints.ai_protocol = protocol;
  addrinfo* list = nullptr;
  // The resolver would read a name with a NUL in it as the shorter name in front of the NUL.
  const int code = host.find('\0') == std::string::npos
                       ? getaddrinfo(host.c_str(), port.c_str(), &hints, &list)
                       : EAI_NONAME;
  Resolution result;
  if (code == 0) {
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
      ResolvedAddress resolved{entry->ai_family, entry->ai_socktype, entry->ai_protocol, {}, 0};
      resolved.length = std::min<socklen_t>(entry->ai_addrlen, sizeof resolved.address);
      std::memcpy(&resolved.address, entry->ai_addr, resolved.length);
      result.addresses.push_back(resolved);
    }
    freeaddrinfo(list);
  }
  if (result.addresses.empty()) {
    result.error = gai_strerror(code);
  }
  return result;
}

}  // namespace

Resolution resolveTCP(const std::string& host, const std::string& port) {
  return resolve(host, port, AF_UNSPEC, SOCK_STREAM, IPPROTO_TCP);
}

Resolution resolveUDPv4(const std::string& host, const std::string& port) {
  return resolve(host, port, AF_INET, SOCK_DGRAM, IPPROTO_UDP);
}

}  // namespace zk
