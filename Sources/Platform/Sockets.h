#pragma once

#include <cstdint>
#include <string>

#include <netinet/in.h>

#include "Platform/Bytes.h"

namespace zk {

/// The system's text for an error number.
std::string errorText(int error);

/// socket(), close-on-exec. -1 and errno on failure.
int openSocket(int family, int type, int protocol);

/// An IPv4 UDP socket, close-on-exec. -1 and errno on failure.
int openUDPSocket();

/// bind(). Whether it succeeded; errno when not.
bool bindSocket(int socket, const sockaddr_in& address);

/// The local address of a socket; all zero when the system does not say.
sockaddr_in localAddress(int socket);

/// Pins the socket: its IPv4 traffic leaves by the interface with this index, whatever the routes
/// say. Needs no privilege. Whether the system agreed.
bool pinToInterface(int socket, unsigned interfaceIndex);

/// The index of the interface of that name, 0 when there is none.
unsigned interfaceIndex(const std::string& name);

/// One datagram out. Octets sent, or -1 and errno. Repeats a call that a signal interrupted.
std::ptrdiff_t sendDatagram(int socket, ByteView datagram, const sockaddr_in& to);

/// Ends reception and transmission; a thread blocked in a receive on it comes back.
void shutdownSocket(int socket);

void closeSocket(int socket);

/// Waits until `socket` is ready for one of the poll(2) `events` or `milliseconds` have passed, and
/// returns what poll() returned, never being interrupted by a signal.
int pollSocket(int socket, short events, int milliseconds);

}  // namespace zk
