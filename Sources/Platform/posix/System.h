#pragma once

#include <cerrno>
#include <system_error>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include "Base/Bytes.h"
#include "Platform/Descriptor.h"

// What the files of posix/ and of the system's own folder ask of each other.

namespace zk {

/// Throws std::system_error with errno and the name of the call unless it is ok.
inline void require(bool ok, const char* call) {
  if (!ok) {
    throw std::system_error(errno, std::generic_category(), call);
  }
}

inline void setOption(int socket, int level, int option, int value) {
  setsockopt(socket, level, option, &value, sizeof value);
}

/// The length of an IPv4 or IPv6 address.
inline socklen_t lengthOf(const sockaddr& address) {
  return address.sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

/// The TCP option that holds the seconds of silence before the first probe.
extern const int keepAliveIdleOption;

/// A clock that never goes back and keeps counting while the machine is suspended.
extern const clockid_t clockThatCountsSuspension;

/// Closes every descriptor but those of standard input, output and error.
void closeInherited();

/// Has the system take back each large block of memory when it is freed.
void returnLargeBlocksAtOnce();

/// The highest soft limit on descriptors that the system accepts with that hard limit.
rlim_t mostDescriptors(rlim_t hardLimit);

/// Gives the calling thread a name of at most that many octets.
void nameThisThread(const char* name);
extern const std::size_t maxThreadName;

/// A socket for questions about interfaces. Throws LookFailed.
Descriptor openForLooks(int family, int type);

/// The octets of an IPv4 or IPv6 address; none for another family.
ByteView octetsOf(const sockaddr& address);

/// Whether the first `bits` of two addresses are the same. Both have that many.
bool sharePrefix(const std::uint8_t* a, const std::uint8_t* b, unsigned bits);

}  // namespace zk
