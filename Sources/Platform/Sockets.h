#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <netinet/in.h>

#include "Platform/Clock.h"
#include "Platform/Descriptor.h"

namespace zk {

class StopSignal;

/// The system's text for an error number.
std::string errorText(int error);

/// An IPv4 or IPv6 address as numbers, without its port.
std::string numericText(const sockaddr& address);

/// When a wait gives up. Deadlines keep running while the machine is suspended.
using Deadline = SteadyClock::time_point;

enum class Wait { ready, timedOut, stopped, failed };

/// Waits until `descriptor` is ready for one of the poll(2) `events` (an end or an error counts as
/// ready), the deadline has passed, or `stop` is raised, if there is one.
Wait waitFor(int descriptor, short events, Deadline deadline, const StopSignal* stop = nullptr);

/// Connects a socket that does not block: `ready` when it is connected. Throws std::system_error
/// when the system or the far end refuses.
Wait connectSocket(int socket, const sockaddr& to, Deadline deadline, const StopSignal* stop);

/// A socket that is close-on-exec, does not block, and never raises SIGPIPE when it is written to
/// with sendFlags. Throws std::system_error.
Descriptor openNonBlockingSocket(int family, int type, int protocol);

/// The flags with which send() does not raise SIGPIPE, where that is not an option of the socket.
extern const int sendFlags;

/// Pins a socket of that family (AF_INET, AF_INET6): its traffic leaves by the interface with this
/// index, whatever the routes say. Needs no privilege. Throws std::system_error.
void pinToInterface(int socket, int family, unsigned interfaceIndex);

/// For a TCP connection, pinned to `interface` if there is one. Throws std::system_error.
Descriptor openStreamSocket(int family, std::optional<unsigned> interface);

/// TCP keep-alive: probes the far end after `idle` of silence, then every `interval`. The
/// connection ends after `probes` without an answer; 0 turns probing off.
void keepAlive(int socket, std::chrono::seconds idle, std::chrono::seconds interval, int probes);

/// Whether the system drops, and so does not acknowledge, what arrives for a TCP connection from
/// beyond a router. The far end sends it again.
void ignoreDistant(int socket, bool isIgnored);

/// A pipe, close-on-exec. Throws std::system_error.
struct Pipe {
  Descriptor reader;
  Descriptor writer;
};
Pipe openPipe();

}  // namespace zk
