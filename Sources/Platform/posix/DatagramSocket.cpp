#include "Platform/DatagramSocket.h"

#include <cerrno>
#include <system_error>

#include "Platform/Sockets.h"

namespace zk {
namespace {

// A burst of some thousand datagrams survives a moment in which the loop or the way out is busy.
constexpr int wantedBuffer = 4 << 20;

}  // namespace

DatagramSocket DatagramSocket::open() {
  DatagramSocket socket;
  socket.descriptor_ = openNonBlockingSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  return socket;
}

void DatagramSocket::bind(const Endpoint& local) {
  const sockaddr_in address = local.socketAddress();
  if (::bind(descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::system_error(errno, std::generic_category(), "bind");
  }
}

void DatagramSocket::pin(unsigned interfaceIndex) {
  pinToInterface(descriptor(), AF_INET, interfaceIndex);
}

void DatagramSocket::enlargeBuffers() {
  setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &wantedBuffer, sizeof wantedBuffer);
  setsockopt(descriptor(), SOL_SOCKET, SO_SNDBUF, &wantedBuffer, sizeof wantedBuffer);
}

Endpoint DatagramSocket::localAddress() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
  return Endpoint::of(address);
}

std::ptrdiff_t DatagramSocket::send(ByteView datagram, const Endpoint& to) {
  const sockaddr_in address = to.socketAddress();
  ssize_t sent = 0;
  do {
    sent = sendto(descriptor(), datagram.data(), datagram.size(), 0,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    throw std::system_error(errno, std::generic_category(), "sendto");
  }
  return sent;
}

}  // namespace zk
