#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Platform/Bytes.h"

namespace zk {

enum class StreamStatus { notOpen, open, error, closed };

/// The read side and the write side of one connected TCP socket, which it owns: close() and
/// destruction close the socket. One thread at a time.
class ByteStreamPair {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  /// Over `socket`, which must be connected and blocking. Absent, with the socket left to the
  /// caller, when the descriptor is not a socket.
  static std::unique_ptr<ByteStreamPair> create(int socket);

  ~ByteStreamPair();
  ByteStreamPair(const ByteStreamPair&) = delete;
  ByteStreamPair& operator=(const ByteStreamPair&) = delete;

  /// Looks at the socket: status() is `open` afterwards, or `error` when the connection already
  /// broke.
  void open();
  StreamStatus status() const { return status_; }
  /// The system's text of the error that made status() `error`; empty when there is none.
  const std::string& errorDescription() const { return errorDescription_; }

  /// At least one octet and at most `into.size()`, waiting for them until `deadline`. 0 at the end
  /// of the stream and when the deadline passed, negative on an error.
  std::ptrdiff_t read(std::span<std::uint8_t> into, Deadline deadline);

  /// Octets taken from the front of `bytes`, at least one; 0 or negative on an error. A connection
  /// that the far end has reset gives an error and never a SIGPIPE.
  std::ptrdiff_t write(ByteView bytes);

  void close();

 private:
  explicit ByteStreamPair(int socket) : socket_(socket) {}

  int socket_;
  StreamStatus status_ = StreamStatus::notOpen;
  std::string errorDescription_;
};

}  // namespace zk
