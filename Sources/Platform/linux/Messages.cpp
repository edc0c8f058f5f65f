// recvmmsg, sendmmsg and UDP_SEGMENT, with which datagrams of one size to one destination pass the
// network stack as one message that the kernel cuts at the end.

#include "Platform/posix/Messages.h"

#include <cerrno>
#include <cstring>

#include <netinet/udp.h>

namespace zk {

static_assert(sizeof(Message) == sizeof(mmsghdr) &&
              offsetof(Message, length) == offsetof(mmsghdr, msg_len));

int receiveMessages(int socket, std::span<Message> messages) {
  return recvmmsg(socket, reinterpret_cast<mmsghdr*>(messages.data()),
                  static_cast<unsigned>(messages.size()), MSG_DONTWAIT, nullptr);
}

int sendMessages(int socket, std::span<Message> messages) {
  return sendmmsg(socket, reinterpret_cast<mmsghdr*>(messages.data()),
                  static_cast<unsigned>(messages.size()), MSG_DONTWAIT);
}

const bool cutsSegments = true;

void cutIntoSegments(msghdr& message, std::size_t size, SegmentControl& control) {
  const auto segment = static_cast<std::uint16_t>(size);
  static_assert(CMSG_SPACE(sizeof segment) <= sizeof control);
  message.msg_control = control.data();
  message.msg_controllen = CMSG_SPACE(sizeof segment);
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_UDP;
  header->cmsg_type = UDP_SEGMENT;
  header->cmsg_len = CMSG_LEN(sizeof segment);
  std::memcpy(CMSG_DATA(header), &segment, sizeof segment);
}

// EMSGSIZE and EINVAL: a segment is larger than the MTU on the way. A single datagram would be
// fragmented there.
bool refusesSegments(int error) {
  return error == EIO || error == EINVAL || error == EMSGSIZE || error == ENOPROTOOPT;
}

}  // namespace zk
