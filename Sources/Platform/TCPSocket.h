#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <system_error>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "Platform/Descriptor.h"

namespace zk {

/// What became of an attempt to move octets without waiting.
struct Transfer {
  enum class State { moved, blocked, ended, failed };
  State state = State::moved;
  std::size_t octets = 0;   // more than 0 if and only if moved
  std::error_code error{};  // the system's reason when it failed
};

/// Of a system call's result, and its error where that is negative.
Transfer transferOf(std::ptrdiff_t result);

/// A TCP connection that never blocks and closes with its owner.
class TCPSocket {
 public:
  /// No connection.
  TCPSocket() = default;
  explicit TCPSocket(Descriptor connected) : descriptor_(std::move(connected)) {}

  /// Begins to connect, pinned to `interface` if there is one. It becomes writable once it has
  /// connected or failed to; error() tells which. Throws std::system_error.
  static TCPSocket connecting(const sockaddr& to, std::optional<unsigned> interface);
  /// Takes what waits at a listener that does not block, and whom it comes from (0.0.0.0 for what
  /// is not IPv4). Absent when nothing waits. Throws std::system_error.
  static std::optional<TCPSocket> accepted(int listener, Endpoint& from);

  int descriptor() const { return descriptor_.get(); }
  explicit operator bool() const { return static_cast<bool>(descriptor_); }

  /// Why connecting has failed, in the system's words; absent when it has not.
  std::optional<std::string> error() const;
  /// Of a socket: small pieces leave at once, and a far end that is gone without a word is noticed.
  /// What a listener accepts from now on is like the listener.
  static void prepareToCarry(int socket);

  Transfer receive(std::span<std::uint8_t> into);
  Transfer send(ByteView octets);
  /// Tells the far end that no more comes.
  void endOutput();
  /// Closes it, with RST in place of an orderly end.
  void abort();

 private:
  Descriptor descriptor_;
};

/// What one socket's octets go into and out of which they go into another; without a copy where the
/// system knows how.
class Conduit {
 public:
  /// So much at most is in it.
  static constexpr std::size_t capacity = std::size_t{256} << 10;

  /// Throws std::system_error when there is no descriptor to be had.
  Conduit();
  std::size_t held() const { return held_; }
  /// Takes from a socket what fits and is there. Only while it is empty is it the socket for sure
  /// that blocks.
  Transfer fill(const TCPSocket& from);
  /// Gives a socket what it takes. SIGPIPE must be ignored.
  Transfer drain(const TCPSocket& to);

 private:
  std::size_t held_ = 0;
  // Of a pipe, or a buffer in its place.
  Descriptor reader_;
  Descriptor writer_;
  Bytes buffer_;
};

}  // namespace zk
