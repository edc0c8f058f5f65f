#include "Platform/Datagrams.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

#include <sys/mman.h>

namespace zk {

DatagramReceiver::DatagramReceiver(Senders senders)
    : notesSenders_(senders == Senders::noted), room_([] {
        void* const room = mmap(nullptr, sizeof(Room), PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (room == MAP_FAILED) {
          throw std::system_error(errno, std::generic_category(), "mmap");
        }
        return static_cast<Room*>(room);
      }()) {
  for (std::size_t i = 0; i < mostPerCall; ++i) {
    room_->vectors[i] = {room_->buffers[i].data(), room_->buffers[i].size()};
    room_->messages[i] = {};
    room_->messages[i].msg_hdr.msg_name = notesSenders_ ? &room_->senders[i] : nullptr;
    room_->messages[i].msg_hdr.msg_iov = &room_->vectors[i];
    room_->messages[i].msg_hdr.msg_iovlen = 1;
  }
}

void DatagramReceiver::Unmap::operator()(Room* room) const {
  munmap(room, sizeof *room);
}

int DatagramReceiver::receive(int socket) {
  for (std::size_t i = 0; notesSenders_ && i < mostPerCall; ++i) {
    room_->messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
  }
  return recvmmsg(socket, room_->messages.data(), mostPerCall, MSG_WAITFORONE, nullptr);
}

void DatagramSender::add(ByteView header, ByteView payload, const sockaddr_in& to) {
  assert(!isFull() && header.size() <= headerRoom);
  std::copy(header.begin(), header.end(), headers_[count_].begin());
  receivers_[count_] = to;
  vectors_[count_] = {iovec{headers_[count_].data(), header.size()},
                      iovec{const_cast<std::uint8_t*>(payload.data()), payload.size()}};
  messages_[count_] = {};
  messages_[count_].msg_hdr.msg_name = &receivers_[count_];
  messages_[count_].msg_hdr.msg_namelen = sizeof(sockaddr_in);
  messages_[count_].msg_hdr.msg_iov = vectors_[count_].data();
  messages_[count_].msg_hdr.msg_iovlen = vectors_[count_].size();
  ++count_;
}

std::span<const DatagramSender::Outcome> DatagramSender::send(int socket) {
  const std::size_t count = std::exchange(count_, 0);
  for (std::size_t next = 0; next < count;) {
    const int sent =
        sendmmsg(socket, &messages_[next], static_cast<unsigned>(count - next), MSG_NOSIGNAL);
    if (sent > 0) {
      for (int i = 0; i < sent; ++i, ++next) {
        outcomes_[next] = {static_cast<std::ptrdiff_t>(messages_[next].msg_len), 0};
      }
    } else if (errno != EINTR) {  // the first was refused; for any other the call returns earlier
      outcomes_[next++] = {-1, errno};
    }
  }
  return {outcomes_.data(), count};
}

}  // namespace zk
