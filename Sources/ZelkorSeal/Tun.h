#pragma once

#include <array>
#include <span>

#include <sys/uio.h>
#include <unistd.h>

#include "Base/Bytes.h"
#include "Platform/Descriptor.h"

namespace zk {

/// The seal's only way out: a descriptor that does not block and gives or takes one packet a time.
class Tun {
 public:
  explicit Tun(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}
  int descriptor() const { return descriptor_.get(); }

  /// The octets of the next packet; none waits when it is empty.
  std::span<std::uint8_t> read(std::span<std::uint8_t> into) const {
    const ssize_t size = ::read(descriptor(), into.data(), into.size());
    return into.first(size > 0 ? static_cast<std::size_t>(size) : 0);
  }
  /// What the system does not take is lost, as on any wire.
  void write(ByteView packet) const { write(packet, {}); }
  void write(ByteView header, ByteView rest) const {
    const std::array<iovec, 2> pieces{{{const_cast<std::uint8_t*>(header.data()), header.size()},
                                       {const_cast<std::uint8_t*>(rest.data()), rest.size()}}};
    [[maybe_unused]] const ssize_t written =
        writev(descriptor(), pieces.data(), rest.empty() ? 1 : 2);
  }

 private:
  Descriptor descriptor_;
};

}  // namespace zk
