// Bursts by recvmmsg and sendmmsg. Datagrams of one size towards one destination go as one that the
// kernel cuts into segments (UDP_SEGMENT): they pass the network stack once instead of once each.

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <netinet/udp.h>
#include <sys/mman.h>

#include "Platform/DatagramSocket.h"

namespace zk {
namespace {

constexpr std::size_t maxDatagram = 65536;

// What fits one IP packet that is yet to be cut, with room for its headers.
constexpr std::size_t maxSegmented = 65000;

// Larger segments would not pass an Ethernet, and the system then refuses them on the wire.
constexpr std::size_t maxSegment = 1472;

bool hasNoRoom(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS;
}

bool refusesSegments(int error) {
  return error == EIO || error == EINVAL || error == ENOPROTOOPT;
}

}  // namespace

// ---- Receiving ---------------------------------------------------------------------------------

struct DatagramReceiver::Room {
  std::array<mmsghdr, maxBurst> messages;
  std::array<iovec, maxBurst> vectors;
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
      }()) {
  for (std::size_t i = 0; i < maxBurst; ++i) {
    room_->vectors[i] = {room_->buffers[i].data(), room_->buffers[i].size()};
    room_->messages[i].msg_hdr.msg_name = &room_->senders[i];
    room_->messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    room_->messages[i].msg_hdr.msg_iov = &room_->vectors[i];
    room_->messages[i].msg_hdr.msg_iovlen = 1;
  }
}

int DatagramReceiver::receive(const DatagramSocket& socket) {
  const int received =
      recvmmsg(socket.descriptor(), room_->messages.data(), maxBurst, MSG_DONTWAIT, nullptr);
  return received >= 0 ? received : errno == EAGAIN || errno == EINTR ? 0 : -1;
}

ByteView DatagramReceiver::datagram(std::size_t i) const {
  return ByteView(room_->buffers[i]).first(room_->messages[i].msg_len);
}

Endpoint DatagramReceiver::sender(std::size_t i) const {
  return Endpoint::of(room_->senders[i]);
}

// ---- Sending -----------------------------------------------------------------------------------

struct DatagramSender::Burst {
  struct Segments {  // one send: datagrams first to first + count
    std::size_t first;
    std::size_t count;
  };
  using Control = std::array<std::uint8_t, CMSG_SPACE(sizeof(std::uint16_t))>;

  std::array<std::array<std::uint8_t, maxHeader>, maxBurst> headers;
  std::array<iovec, 2 * maxBurst> vectors;  // header and payload of each
  std::array<std::size_t, maxBurst> sizes;
  std::array<sockaddr_in, maxBurst> receivers;
  std::array<mmsghdr, maxBurst> messages;
  std::array<Segments, maxBurst> runs;  // by message
  alignas(cmsghdr) std::array<Control, maxBurst> controls;
  std::array<Result, maxBurst> results;

  bool goTogether(std::size_t a, std::size_t b) const {
    return Endpoint::of(receivers[a]) == Endpoint::of(receivers[b]);
  }
  std::size_t runFrom(std::size_t first, std::size_t end) const;
  std::size_t prepare(std::size_t first, std::size_t end, bool segments);
};

// How many datagrams from `first` on the system may cut from one: all of one size, but that the
// last may be shorter.
std::size_t DatagramSender::Burst::runFrom(std::size_t first, std::size_t end) const {
  const std::size_t size = sizes[first];
  if (size == 0 || size > maxSegment) {
    return 1;
  }
  std::size_t count = 1;
  while (first + count < end && (count + 1) * size <= maxSegmented && sizes[first + count] > 0 &&
         sizes[first + count] <= size && goTogether(first, first + count)) {
    ++count;
    if (sizes[first + count - 1] < size) {
      break;
    }
  }
  return count;
}

// Makes messages of the datagrams from `first` on, and tells how many.
std::size_t DatagramSender::Burst::prepare(std::size_t first, std::size_t end, bool segments) {
  std::size_t made = 0;
  while (first < end) {
    const std::size_t count = segments ? runFrom(first, end) : 1;
    msghdr& message = messages[made].msg_hdr;
    message = {};
    message.msg_name = &receivers[first];
    message.msg_namelen = sizeof(sockaddr_in);
    message.msg_iov = &vectors[2 * first];
    message.msg_iovlen = 2 * count;
    if (count > 1) {
      message.msg_control = controls[made].data();
      message.msg_controllen = controls[made].size();
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_UDP;
      header->cmsg_type = UDP_SEGMENT;
      header->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
      const auto size = static_cast<std::uint16_t>(sizes[first]);
      std::memcpy(CMSG_DATA(header), &size, sizeof size);
    }
    runs[made++] = {first, count};
    first += count;
  }
  return made;
}

DatagramSender::DatagramSender() : burst_(std::make_unique<Burst>()) {}

DatagramSender::~DatagramSender() = default;

void DatagramSender::add(ByteView header, ByteView payload, const Endpoint& to) {
  assert(!isFull() && header.size() <= maxHeader);
  const std::size_t i = count_++;
  std::copy(header.begin(), header.end(), burst_->headers[i].begin());
  burst_->vectors[2 * i] = {burst_->headers[i].data(), header.size()};
  burst_->vectors[2 * i + 1] = {const_cast<std::uint8_t*>(payload.data()), payload.size()};
  burst_->sizes[i] = header.size() + payload.size();
  burst_->receivers[i] = to.socketAddress();
}

std::span<const DatagramSender::Result> DatagramSender::send(DatagramSocket& socket) {
  Burst& burst = *burst_;
  const std::size_t count = std::exchange(count_, 0);
  std::size_t next = 0;  // the first datagram that is still to be sent
  while (next < count) {
    const std::size_t made = burst.prepare(next, count, socket.takesSegments_);
    const int sent = sendmmsg(socket.descriptor(), burst.messages.data(),
                              static_cast<unsigned>(made), MSG_DONTWAIT);
    for (int message = 0; message < sent; ++message) {
      const auto [first, segments] = burst.runs[static_cast<std::size_t>(message)];
      for (; next < first + segments; ++next) {
        burst.results[next] = {static_cast<std::ptrdiff_t>(burst.sizes[next]), false};
      }
    }
    if (sent >= 0 || errno == EINTR) {
      continue;
    }
    // The first message was refused; for any other the call returns earlier.
    if (hasNoRoom(errno)) {
      std::fill(burst.results.begin() + static_cast<std::ptrdiff_t>(next),
                burst.results.begin() + static_cast<std::ptrdiff_t>(count), Result{-1, true});
      break;
    }
    if (burst.runs[0].count > 1 && refusesSegments(errno)) {
      socket.takesSegments_ = false;  // nothing of it has left: the next round sends one by one
      continue;
    }
    for (const std::size_t end = next + burst.runs[0].count; next < end; ++next) {
      burst.results[next] = {-1, false};
    }
  }
  return std::span(burst.results).first(count);
}

}  // namespace zk
