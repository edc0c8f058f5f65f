#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "Platform/Descriptor.h"

namespace zk {

/// An IPv4 UDP socket that never blocks and closes with its owner.
class DatagramSocket {
 public:
  /// No socket.
  DatagramSocket() = default;
  /// Throws std::system_error.
  static DatagramSocket open();

  /// To a local address; 0 is any address, or a port of the system's choice. Throws
  /// std::system_error.
  void bind(const Endpoint& local);
  /// Asks for room for a key frame's burst in both directions; the system may give less.
  void enlargeBuffers();

  /// Throws std::system_error.
  Endpoint localAddress() const;
  int descriptor() const { return descriptor_.get(); }
  explicit operator bool() const { return static_cast<bool>(descriptor_); }
  void close() { descriptor_.reset(); }

  /// One datagram out. Octets sent; throws std::system_error.
  std::ptrdiff_t send(ByteView datagram, const Endpoint& to);

 private:
  friend class DatagramSender;
  Descriptor descriptor_;
  bool takesSegments_ = true;  // until the system, or the way out, refuses segmentation
};

/// The most datagrams that are received or sent together. A socket that has more waiting gets
/// another turn after the others have had theirs.
inline constexpr std::size_t maxBurst = 32;

/// Buffers for the datagrams of one burst. Any number of sockets on one thread may share them.
class DatagramReceiver {
 public:
  /// Takes address space; memory only as datagrams fill it. Throws std::system_error.
  DatagramReceiver();

  /// Receives what is waiting in `socket`, at most maxBurst datagrams, and forgets the burst
  /// before. Returns how many; 0 when none is waiting, -1 when the socket reported an error
  /// instead, which that clears.
  int receive(const DatagramSocket& socket);

  /// The i-th datagram of the last burst, cut at 65,536 octets, and whom it came from.
  ByteView datagram(std::size_t i) const;
  Endpoint sender(std::size_t i) const;

 private:
  struct Room;
  struct Release {
    void operator()(Room* room) const;
  };
  std::unique_ptr<Room, Release> room_;
};

/// Gathers datagrams and sends them with as few calls as the system allows. One thread.
class DatagramSender {
 public:
  static constexpr std::size_t maxHeader = 16;

  /// What became of one datagram: the octets sent, or -1; and whether it is -1 only because the
  /// system had no room for it now.
  struct Result {
    std::ptrdiff_t sent = -1;
    bool wouldBlock = false;
  };

  DatagramSender();
  ~DatagramSender();

  /// Adds one: a header of at most maxHeader octets, which is copied, and a payload, which must
  /// live until send(). Not when full.
  void add(ByteView header, ByteView payload, const Endpoint& to);
  std::size_t size() const { return count_; }
  bool isFull() const { return count_ == maxBurst; }

  /// Sends all, in order, and starts over. One result for each, valid until the next add(). Once
  /// there is no room for one, the rest are not tried.
  std::span<const Result> send(DatagramSocket& socket);

 private:
  struct Burst;
  const std::unique_ptr<Burst> burst_;
  std::size_t count_ = 0;
};

}  // namespace zk
