// Bursts by recvfrom and sendmsg, one call for each datagram: for systems that have no call for
// many. Where they have one, this shows that nothing else depends on it.

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

#include <sys/mman.h>
#include <sys/uio.h>

#include "Platform/DatagramSocket.h"

namespace zk {
namespace {

constexpr std::size_t maxDatagram = 65536;

}  // namespace

// ---- Receiving ---------------------------------------------------------------------------------

struct DatagramReceiver::Room {
  std::array<std::size_t, maxBurst> sizes;
  std::array<sockaddr_in, maxBurst> senders;
  std::array<std::array<std::uint8_t, maxDatagram>, maxBurst> buffers;
};

void DatagramReceiver::Release::operator()(Room* room) const {
  munmap(room, sizeof *room);
}

DatagramReceiver::DatagramReceiver()
    : room_([] {
        void* const room = mmap(nullptr, sizeof(Room), PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (room == MAP_FAILED) {
          throw std::system_error(errno, std::generic_category(), "mmap");
        }
        return static_cast<Room*>(room);
      }()) {}

int DatagramReceiver::receive(const DatagramSocket& socket) {
  std::size_t count = 0;
  while (count < maxBurst) {
    socklen_t length = sizeof(sockaddr_in);
    const ssize_t received =
        recvfrom(socket.descriptor(), room_->buffers[count].data(), maxDatagram, MSG_DONTWAIT,
                 reinterpret_cast<sockaddr*>(&room_->senders[count]), &length);
    if (received >= 0) {
      room_->sizes[count++] = static_cast<std::size_t>(received);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      break;
    } else if (errno != EINTR) {
      return count > 0 ? static_cast<int>(count) : -1;
    }
  }
  return static_cast<int>(count);
}

ByteView DatagramReceiver::datagram(std::size_t i) const {
  return ByteView(room_->buffers[i]).first(room_->sizes[i]);
}

Endpoint DatagramReceiver::sender(std::size_t i) const {
  return Endpoint::of(room_->senders[i]);
}

// ---- Sending -----------------------------------------------------------------------------------

struct DatagramSender::Burst {
  struct Datagram {
    std::array<std::uint8_t, maxHeader> header;
    std::array<iovec, 2> parts;  // header and payload
    sockaddr_in receiver;
  };
  std::array<Datagram, maxBurst> datagrams;
  std::array<Result, maxBurst> results;
};

DatagramSender::DatagramSender() : burst_(std::make_unique<Burst>()) {}

DatagramSender::~DatagramSender() = default;

void DatagramSender::add(ByteView header, ByteView payload, const Endpoint& to) {
  assert(!isFull() && header.size() <= maxHeader);
  Burst::Datagram& datagram = burst_->datagrams[count_++];
  std::copy(header.begin(), header.end(), datagram.header.begin());
  datagram.parts = {iovec{datagram.header.data(), header.size()},
                    iovec{const_cast<std::uint8_t*>(payload.data()), payload.size()}};
  datagram.receiver = to.socketAddress();
}

std::span<const DatagramSender::Result> DatagramSender::send(DatagramSocket& socket) {
  const std::span results = std::span(burst_->results).first(std::exchange(count_, 0));
  bool wouldBlock = false;
  for (std::size_t i = 0; i < results.size(); ++i) {
    ssize_t sent = -1;
    if (!wouldBlock) {
      Burst::Datagram& datagram = burst_->datagrams[i];
      msghdr message{};
      message.msg_name = &datagram.receiver;
      message.msg_namelen = sizeof datagram.receiver;
      message.msg_iov = datagram.parts.data();
      message.msg_iovlen = 2;
      do {
        sent = sendmsg(socket.descriptor(), &message, MSG_DONTWAIT);
      } while (sent < 0 && errno == EINTR);
      wouldBlock = sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS);
    }
    results[i] = {sent, wouldBlock};
  }
  return results;
}

}  // namespace zk
