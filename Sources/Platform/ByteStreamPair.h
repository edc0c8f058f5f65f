#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <system_error>

#include "Base/Bytes.h"
#include "Platform/Descriptor.h"
#include "Platform/Sockets.h"

namespace zk {

/// What came of reading or writing: octets, or why there are none.
struct StreamResult {
  enum class Kind { octets, end, timedOut, stopped, failed };

  Kind kind = Kind::octets;
  std::size_t count = 0;    // of octets, at least one
  std::error_code error{};  // the system's reason when it failed
};

/// The read side and the write side of one connected TCP socket, which it owns. Every wait ends at
/// its deadline and when the stop signal is raised. One thread at a time.
class ByteStreamPair {
 public:
  /// Takes a connected, non-blocking socket. `stop` may be null; otherwise it must outlive this.
  ByteStreamPair(Descriptor socket, const StopSignal* stop)
      : socket_(std::move(socket)), stop_(stop) {}

  /// Reads at most `into.size()` octets.
  StreamResult read(std::span<std::uint8_t> into, Deadline deadline);

  /// Writes octets from the front of `bytes`. Writing to a connection that the far end has reset
  /// fails and never raises SIGPIPE.
  StreamResult write(ByteView bytes, Deadline deadline);

  /// For callers that wait on several descriptors at once.
  int descriptor() const { return socket_.get(); }

  /// How the stream has ended, `end` or `failed`; absent while it is alive. Never waits. Octets
  /// that have arrived are discarded.
  std::optional<StreamResult> takeEnd();

 private:
  Descriptor socket_;
  const StopSignal* stop_;
};

}  // namespace zk
