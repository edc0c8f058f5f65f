#include "Platform/DatagramSocket.h"

#include "Platform/Sockets.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

// Enough for some thousand datagrams while the loop or the way out is busy for a moment.
constexpr int wantedBuffer = 4 << 20;

}  // namespace

DatagramSocket DatagramSocket::open() {
  DatagramSocket socket;
  socket.descriptor_ = openNonBlockingSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  return socket;
}

void DatagramSocket::bind(const Endpoint& local) {
  const sockaddr_in address = local.socketAddress();
  require(::bind(descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "bind");
}

void DatagramSocket::enlargeBuffers() {
  setOption(descriptor(), SOL_SOCKET, SO_RCVBUF, wantedBuffer);
  setOption(descriptor(), SOL_SOCKET, SO_SNDBUF, wantedBuffer);
}

Endpoint DatagramSocket::localAddress() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  require(getsockname(descriptor(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
          "getsockname");
  return Endpoint::of(address);
}

std::ptrdiff_t DatagramSocket::send(ByteView datagram, const Endpoint& to) {
  const sockaddr_in address = to.socketAddress();
  ssize_t sent = 0;
  do {
    sent = sendto(descriptor(), datagram.data(), datagram.size(), 0,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (sent < 0 && errno == EINTR);
  require(sent >= 0, "sendto");
  return sent;
}

}  // namespace zk
