#pragma once

#include <chrono>
#include <optional>

#include "Platform/Descriptor.h"

namespace zk {

/// What every system says in its own way about sockets and pipes.

/// A socket that is close-on-exec, does not block, and never raises SIGPIPE when it is written to
/// with sendFlags. None on failure, with the reason in errno.
Descriptor openNonBlockingSocket(int family, int type, int protocol);

/// The flags of send() that keep it from raising SIGPIPE, where the socket itself cannot.
extern const int sendFlags;

/// Pins a socket of that family (AF_INET, AF_INET6): its traffic leaves by the interface with this
/// index, whatever the routes say. Needs no privilege. Whether the system agreed.
bool pinToInterface(int socket, int family, unsigned interfaceIndex);

/// Has the system ask the far end of a TCP connection whether it still lives: after `idle` seconds
/// of silence, every `interval` from then on. `probes` without an answer end the connection.
void keepAlive(int socket, std::chrono::seconds idle, std::chrono::seconds interval, int probes);

/// Both ends of a pipe, close-on-exec. Absent on failure, with the reason in errno.
struct Pipe {
  Descriptor reader;
  Descriptor writer;
};
std::optional<Pipe> openPipe();

}  // namespace zk
