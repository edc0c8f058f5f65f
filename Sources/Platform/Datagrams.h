#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <netinet/in.h>
#include <sys/socket.h>

#include "Platform/Bytes.h"

namespace zk {

/// How many datagrams one call of the system receives or sends at most. Entering the kernel and
/// waking the reader is a quarter of what sending and receiving a datagram costs; shared by eight
/// it hardly counts, and more than eight gain nothing.
inline constexpr std::size_t mostPerCall = 8;

/// Takes what waits on a socket, up to mostPerCall datagrams in one call. It is half a megabyte
/// large; the room that no datagram has used yet costs no memory.
class DatagramReceiver {
 public:
  enum class Senders { noted, ignored };

  explicit DatagramReceiver(Senders senders);
  DatagramReceiver(const DatagramReceiver&) = delete;
  DatagramReceiver& operator=(const DatagramReceiver&) = delete;

  /// Waits for a datagram and takes those behind it that are there already. How many; -1 and errno
  /// when there is none because the call failed.
  int receive(int socket);

  /// The datagrams of the last receive(), 0 to its result - 1, in order of arrival.
  ByteView datagram(std::size_t i) const { return {buffers_[i].data(), messages_[i].msg_len}; }
  /// Who sent it, where senders are noted.
  const sockaddr_in& sender(std::size_t i) const { return senders_[i]; }

 private:
  const bool notesSenders_;
  std::array<std::array<std::uint8_t, 65536>, mostPerCall> buffers_;  // each holds any datagram
  std::array<sockaddr_in, mostPerCall> senders_;
  std::array<iovec, mostPerCall> vectors_;
  std::array<mmsghdr, mostPerCall> messages_;
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
