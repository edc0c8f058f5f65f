// There is no moving without a copy between sockets: a buffer.

#include <algorithm>

#include <sys/socket.h>

#include "Platform/TCPSocket.h"

namespace zk {

Conduit::Conduit() : buffer_(capacity) {}

Transfer Conduit::fill(const TCPSocket& from) {
  const Transfer filled =
      transferOf(recv(from.descriptor(), buffer_.data() + held_, capacity - held_, MSG_DONTWAIT));
  held_ += filled.octets;
  return filled;
}

Transfer Conduit::drain(const TCPSocket& to) {
  const Transfer drained = transferOf(send(to.descriptor(), buffer_.data(), held_, MSG_DONTWAIT));
  held_ -= drained.octets;
  std::copy_n(buffer_.data() + drained.octets, held_, buffer_.data());
  return drained;
}

}  // namespace zk
