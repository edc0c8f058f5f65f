// There is no moving without a copy between sockets: a buffer.

#include <algorithm>

#include <sys/socket.h>

#include "Platform/TCPSocket.h"

namespace zk {

Conduit::Conduit() : buffer_(capacity) {}

Transfer Conduit::fill(const TCPSocket& from) {
  std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(at_),
            buffer_.begin() + static_cast<std::ptrdiff_t>(at_ + held_), buffer_.begin());
  at_ = 0;
  const Transfer filled =
      transferOf(recv(from.descriptor(), buffer_.data() + held_, capacity - held_, MSG_DONTWAIT));
  held_ += filled.octets;
  return filled;
}

Transfer Conduit::drain(const TCPSocket& to) {
  const Transfer drained =
      transferOf(send(to.descriptor(), buffer_.data() + at_, held_, MSG_DONTWAIT));
  at_ += drained.octets;
  held_ -= drained.octets;
  return drained;
}

}  // namespace zk
