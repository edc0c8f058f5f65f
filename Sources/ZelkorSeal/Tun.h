#pragma once

#include <algorithm>
#include <array>
#include <span>

#include <sys/uio.h>
#include <unistd.h>

#include "Base/Bytes.h"
#include "Platform/Descriptor.h"
#include "ZelkorSeal/Packet.h"

namespace zk {

/// The seal's only way out: a descriptor that does not block and gives or takes one packet a time,
/// behind a header of what its system has left undone. That is the sum over a segment (TCP): who
/// gets it is the same system, and knows that no wire can have changed it.
class Tun {
 public:
  /// That header (struct virtio_net_hdr, which C++ cannot read).
  struct About {
    std::uint8_t flags = 0;
    std::uint8_t unused[5] = {};
    std::uint16_t sumFrom = 0;
    std::uint16_t sumAt = 0;  // from there
  };

  explicit Tun(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}
  int descriptor() const { return descriptor_.get(); }

  /// The octets of the next packet, which lie in `into` behind that header; none waits when there
  /// are none.
  std::span<std::uint8_t> read(std::span<std::uint8_t> into) const {
    const ssize_t size = ::read(descriptor(), into.data(), into.size());
    const auto whole = static_cast<std::size_t>(std::max(size, ssize_t{sizeof(About)}));
    return into.first(whole).subspan(sizeof(About));
  }
  /// A packet of our own. What the system does not take is lost, as on any wire.
  void write(ByteView packet) const { write(About(), packet, {}); }
  void write(ByteView header, ByteView rest) const { write(About(), header, rest); }
  /// A segment of the seal's own system, as it has come or readdressed.
  void writeBack(ByteView segment) const {
    constexpr std::uint8_t needsSum = 1;  // VIRTIO_NET_HDR_F_NEEDS_CSUM
    write({needsSum, {}, Packet::ipv4HeaderSize, Packet::tcpChecksumAt}, segment, {});
  }

 private:
  void write(About about, ByteView packet, ByteView rest) const {
    const std::array<iovec, 3> pieces{{{&about, sizeof about},
                                       {const_cast<std::uint8_t*>(packet.data()), packet.size()},
                                       {const_cast<std::uint8_t*>(rest.data()), rest.size()}}};
    [[maybe_unused]] const ssize_t written =
        writev(descriptor(), pieces.data(), rest.empty() ? 2 : 3);
  }

  Descriptor descriptor_;
};

}  // namespace zk
