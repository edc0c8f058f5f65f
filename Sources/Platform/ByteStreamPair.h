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
  /// Over a connected socket that does not block. `stop` may be absent, and else outlives this.
  ByteStreamPair(Descriptor socket, const StopSignal* stop)
      : socket_(std::move(socket)), stop_(stop) {}

  /// Reads at most `into.size()` octets.
  StreamResult read(std::span<std::uint8_t> into, Deadline deadline);

  /// Takes octets from the front of `bytes`. A connection that the far end has reset fails and
  /// never raises SIGPIPE.
  StreamResult write(ByteView bytes, Deadline deadline);

  /// For whoever waits for several things at once.
  int descriptor() const { return socket_.get(); }

  /// How the stream has ended by now, `end` or `failed`; absent while it lives. Never waits. Octets
  /// that have come are thrown away.
  std::optional<StreamResult> takeEnd();

 private:
  Descriptor socket_;
  const StopSignal* stop_;
};

}  // namespace zk
