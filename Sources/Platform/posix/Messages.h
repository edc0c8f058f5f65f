#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <sys/socket.h>

// What DatagramBursts.cpp asks of the system: calls that move several datagrams, or loops in their
// place.

namespace zk {

/// One datagram, laid out like the mmsghdr of systems that have it.
struct Message {
  msghdr header;
  unsigned length;  // octets received or sent
};

/// Receives what waits, without waiting for more. How many messages came; -1 and errno when the
/// socket has none or reports an error instead.
int receiveMessages(int socket, std::span<Message> messages);

/// Sends in order, without waiting for room. How many went before the first that was refused; -1
/// and errno when that was the first of all.
int sendMessages(int socket, std::span<Message> messages);

/// Whether the system can cut one message into datagrams of one size.
extern const bool cutsSegments;
using SegmentControl = std::array<std::uint8_t, 64>;
/// Has the system cut `message` after every `size` octets. `control` is used until it is sent.
void cutIntoSegments(msghdr& message, std::size_t size, SegmentControl& control);
/// Whether an errno means that the system, or the way out, cannot cut this message.
bool refusesSegments(int error);

}  // namespace zk
