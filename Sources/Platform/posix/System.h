#pragma once

#include <sys/resource.h>
#include <sys/socket.h>

// What posix/ asks of the folder of the system at hand.

namespace zk {

inline void setOption(int socket, int level, int option, int value) {
  setsockopt(socket, level, option, &value, sizeof value);
}

/// The TCP option that holds the seconds of silence before the first probe.
extern const int keepAliveIdleOption;

/// Closes every descriptor but those of standard input, output and error.
void closeInherited();

/// The highest soft limit of descriptors that the system takes under that hard one.
rlim_t mostDescriptors(rlim_t hardLimit);

}  // namespace zk
