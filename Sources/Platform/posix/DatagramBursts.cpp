// Sends and receives bursts. Where the system can cut one message into several datagrams, those of
// one size to one destination are sent together.

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <utility>

#include <sys/mman.h>
#include <sys/uio.h>

#include "Platform/DatagramSocket.h"
#include "Platform/posix/Messages.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

constexpr std::size_t maxDatagram = 65536;
constexpr std::size_t cacheLine = 64;

// What fits into one IP packet before it is cut, with room for its headers.
constexpr std::size_t maxSegmented = 65000;

// A datagram that is alone and no larger goes in one piece: the plain call costs less than copying
// that much.
constexpr std::size_t maxPlain = 2048;

// Larger segments would not pass an Ethernet, and the system then refuses them on the wire.
constexpr std::size_t maxSegment = 1472;

void describe(msghdr& message, sockaddr_in& address, iovec* parts, std::size_t count) {
  message = {};
  message.msg_name = &address;
  message.msg_namelen = sizeof address;
  message.msg_iov = parts;
  message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(count);
}

}  // namespace

// ---- Receiving ---------------------------------------------------------------------------------

struct DatagramReceiver::Room {
  std::array<Message, maxBurst> messages;
  std::array<iovec, maxBurst> vectors;
  std::array<sockaddr_in, maxBurst> senders;
  // Their beginnings, which is all that most of them use, fall into different sets of the caches.
  struct Buffer {
    std::array<std::uint8_t, maxDatagram> octets;
    std::array<std::uint8_t, 19 * cacheLine> gap;
  };
  std::array<Buffer, maxBurst> buffers;
};

void DatagramReceiver::Release::operator()(Room* room) const {
  munmap(room, sizeof *room);
}

DatagramReceiver::DatagramReceiver() {
  void* const room = mmap(nullptr, sizeof(Room), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  require(room != MAP_FAILED, "mmap");
  room_.reset(static_cast<Room*>(room));
  for (std::size_t i = 0; i < maxBurst; ++i) {
    room_->vectors[i] = {room_->buffers[i].octets.data(), maxDatagram};
    describe(room_->messages[i].header, room_->senders[i], &room_->vectors[i], 1);
  }
}

int DatagramReceiver::receive(const DatagramSocket& socket) {
  const int received = receiveMessages(socket.descriptor(), room_->messages);
  return received >= 0 ? received : errno == EAGAIN || errno == EINTR ? 0 : -1;
}

ByteView DatagramReceiver::datagram(std::size_t i) const {
  return ByteView(room_->buffers[i].octets).first(room_->messages[i].length);
}

Endpoint DatagramReceiver::sender(std::size_t i) const {
  return Endpoint::of(room_->senders[i]);
}

// ---- Sending -----------------------------------------------------------------------------------

struct DatagramSender::Burst {
  std::array<std::array<std::uint8_t, maxHeader>, maxBurst> headers;
  std::array<iovec, 2 * maxBurst> vectors;  // header and payload of each
  std::array<std::size_t, maxBurst> sizes;
  std::array<sockaddr_in, maxBurst> receivers;
  std::array<Result, maxBurst> results;

  // Of one send.
  std::array<Message, maxBurst> messages;
  std::array<std::size_t, maxBurst> runs;  // how many datagrams each message carries
  alignas(cmsghdr) std::array<SegmentControl, maxBurst> controls;

  ssize_t sendPlain(int socket);
  std::size_t runFrom(std::size_t first, std::size_t end) const;
  std::size_t prepare(std::size_t first, std::size_t end, bool segments);
};

ssize_t DatagramSender::Burst::sendPlain(int socket) {
  std::array<std::uint8_t, maxPlain> datagram;
  std::size_t size = 0;
  for (const iovec& part : {vectors[0], vectors[1]}) {
    const auto* const octets = static_cast<const std::uint8_t*>(part.iov_base);
    std::copy(octets, octets + part.iov_len, datagram.begin() + static_cast<std::ptrdiff_t>(size));
    size += part.iov_len;
  }
  return sendto(socket, datagram.data(), size, MSG_DONTWAIT,
                reinterpret_cast<const sockaddr*>(&receivers[0]), sizeof receivers[0]);
}

// How many datagrams from `first` on can go as one: they have the same size, except that the last
// may be shorter.
std::size_t DatagramSender::Burst::runFrom(std::size_t first, std::size_t end) const {
  const std::size_t size = sizes[first];
  if (size == 0 || size > maxSegment) {
    return 1;
  }
  std::size_t count = 1;
  while (first + count < end && (count + 1) * size <= maxSegmented && sizes[first + count] > 0 &&
         sizes[first + count] <= size &&
         Endpoint::of(receivers[first]) == Endpoint::of(receivers[first + count])) {
    ++count;
    if (sizes[first + count - 1] < size) {
      break;
    }
  }
  return count;
}

// Makes messages of the datagrams from `first` on. Returns how many.
std::size_t DatagramSender::Burst::prepare(std::size_t first, std::size_t end, bool segments) {
  std::size_t made = 0;
  for (; first < end; first += runs[made++]) {
    const std::size_t count = segments ? runFrom(first, end) : 1;
    msghdr& message = messages[made].header;
    describe(message, receivers[first], &vectors[2 * first], 2 * count);
    if (count > 1) {
      cutIntoSegments(message, sizes[first], controls[made]);
    }
    runs[made] = count;
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
    int sent = 0;
    if (count == 1 && burst.sizes[0] <= maxPlain) {
      burst.runs[0] = 1;
      sent = burst.sendPlain(socket.descriptor()) < 0 ? -1 : 1;
    } else {
      const std::size_t made = burst.prepare(next, count, cutsSegments && socket.takesSegments_);
      sent = sendMessages(socket.descriptor(), std::span(burst.messages).first(made));
    }
    const int error = errno;
    if (sent < 0 && error == EINTR) {
      continue;
    }
    if (sent < 0 && burst.runs[0] > 1 && refusesSegments(error)) {
      socket.takesSegments_ = false;  // nothing was sent: the next round sends one by one
      continue;
    }
    if (sent < 0 && (error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS)) {
      std::fill(burst.results.begin() + static_cast<std::ptrdiff_t>(next),
                burst.results.begin() + static_cast<std::ptrdiff_t>(count), Result{-1, true});
      break;
    }
    // If the first message was refused, only that one is finished.
    for (std::size_t message = 0; message < static_cast<std::size_t>(sent < 0 ? 1 : sent);
         ++message) {
      for (const std::size_t end = next + burst.runs[message]; next < end; ++next) {
        burst.results[next].sent = sent < 0 ? -1 : static_cast<std::ptrdiff_t>(burst.sizes[next]);
        burst.results[next].wouldBlock = false;
      }
    }
  }
  return std::span(burst.results).first(count);
}

}  // namespace zk
