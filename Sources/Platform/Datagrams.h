#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <netinet/in.h>
#include <sys/socket.h>

#include "Platform/Bytes.h"

namespace zk {

/// How many datagrams one call of the system receives or sends at most. Entering the kernel and
/// waking the reader is a quarter of what sending and receiving a datagram costs; shared by eight
/// it hardly counts, and more than eight gain nothing.
inline constexpr std::size_t mostPerCall = 8;

/// Takes what waits on a socket, up to mostPerCall datagrams in one call.
class DatagramReceiver {
 public:
  enum class Senders { noted, ignored };

  /// Throws std::system_error when there is no room for half a megabyte of buffers. What of them no
  /// datagram has used yet costs no memory.
  explicit DatagramReceiver(Senders senders);

  /// Waits for a datagram and takes those behind it that are there already. How many; -1 and errno
  /// when there is none because the call failed.
  int receive(int socket);

  /// The datagrams of the last receive(), 0 to its result - 1, in order of arrival.
  ByteView datagram(std::size_t i) const {
    return {room_->buffers[i].data(), room_->messages[i].msg_len};
  }
  /// Who sent it, where senders are noted.
  const sockaddr_in& sender(std::size_t i) const { return room_->senders[i]; }

 private:
  struct Room {
    std::array<mmsghdr, mostPerCall> messages;
    std::array<iovec, mostPerCall> vectors;
    std::array<sockaddr_in, mostPerCall> senders;
    std::array<std::array<std::uint8_t, 65536>, mostPerCall> buffers;  // each for any datagram
  };
  struct Unmap {
    void operator()(Room* room) const;
  };

  const bool notesSenders_;
  // From the system and back to it. On the heap the pages that traffic has touched would stay, and
  // on a stack some compilers touch them all.
  const std::unique_ptr<Room, Unmap> room_;
};

/// Gathers datagrams and sends them in one call.
class DatagramSender {
 public:
  static constexpr std::size_t headerRoom = 16;  // octets

  struct Outcome {
    std::ptrdiff_t sent = -1;  // octets, or -1
    int error = 0;             // errno then
  };

  DatagramSender() = default;
  DatagramSender(const DatagramSender&) = delete;
  DatagramSender& operator=(const DatagramSender&) = delete;

  /// How many datagrams are gathered. No more than mostPerCall may be before send().
  std::size_t size() const { return count_; }
  bool isFull() const { return count_ == mostPerCall; }

  /// Adds a datagram: a header of headerRoom octets at most, which is copied, and a payload, which
  /// has to live until send().
  void add(ByteView header, ByteView payload, const sockaddr_in& to);

  /// Sends what was added, in that order, and forgets it. What the system refuses does not hold up
  /// what is behind it. One outcome per datagram, until the next call of anything.
  std::span<const Outcome> send(int socket);

 private:
  std::size_t count_ = 0;
  std::array<std::array<std::uint8_t, headerRoom>, mostPerCall> headers_;
  std::array<sockaddr_in, mostPerCall> receivers_;
  std::array<std::array<iovec, 2>, mostPerCall> vectors_;
  std::array<mmsghdr, mostPerCall> messages_;
  std::array<Outcome, mostPerCall> outcomes_;
};

}  // namespace zk
