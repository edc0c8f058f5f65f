// A pipe, into and out of which the system moves the pages that the octets lie in.

#include <array>

#include <fcntl.h>
#include <unistd.h>

#include "Platform/TCPSocket.h"
#include "Platform/posix/System.h"

namespace zk {

Conduit::Conduit() {
  std::array<int, 2> ends{};
  require(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) == 0, "pipe");
  reader_ = Descriptor(ends[0]);
  writer_ = Descriptor(ends[1]);
  fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(capacity));  // a smaller one does as well
}

Transfer Conduit::fill(const TCPSocket& from) {
  const Transfer filled = transferOf(splice(from.descriptor(), nullptr, writer_.get(), nullptr,
                                            capacity - held_, SPLICE_F_MOVE | SPLICE_F_NONBLOCK));
  held_ += filled.octets;
  return filled;
}

Transfer Conduit::drain(const TCPSocket& to) {
  const Transfer drained = transferOf(splice(reader_.get(), nullptr, to.descriptor(), nullptr,
                                             held_, SPLICE_F_MOVE | SPLICE_F_NONBLOCK));
  held_ -= drained.octets;
  return drained;
}

}  // namespace zk
