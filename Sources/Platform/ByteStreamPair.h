#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Base/Bytes.h"
#include "Platform/Descriptor.h"
#include "Platform/Sockets.h"

namespace zk {

/// The read side and the write side of one connected TCP socket, which it owns. Every wait ends at
/// its deadline and when the stop signal is raised. One thread at a time.
class ByteStreamPair {
 public:
  /// Over a connected socket that does not block. `stop` may be absent, and else outlives this.
  ByteStreamPair(Descriptor socket, const StopSignal* stop)
      : socket_(std::move(socket)), stop_(stop) {}

  /// At least one octet and at most `into.size()`. 0 at the end of the stream, when the deadline
  /// passed and when stopped; negative on an error.
  std::ptrdiff_t read(std::span<std::uint8_t> into, Deadline deadline);

  /// Octets taken from the front of `bytes`, at least one; 0 when the deadline passed or when
  /// stopped, negative on an error. A connection that the far end has reset gives an error and
  /// never a SIGPIPE.
  std::ptrdiff_t write(ByteView bytes, Deadline deadline);

  /// For whoever waits for several things at once.
  int descriptor() const { return socket_.get(); }

  /// What has come by now, without waiting: its end, the reason of an error, or nothing of either
  /// kind. Octets are thrown away.
  std::optional<std::string> takeEnd();

 private:
  Descriptor socket_;
  const StopSignal* stop_;
};

}  // namespace zk
