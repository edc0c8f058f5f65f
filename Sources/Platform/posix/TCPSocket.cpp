#include "Platform/TCPSocket.h"

#include <cerrno>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "Platform/Sockets.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

// A far end that is gone without a word is noticed within two minutes.
constexpr std::chrono::seconds aliveIdle{60};
constexpr std::chrono::seconds aliveInterval{10};
constexpr int aliveProbes = 6;

}  // namespace

Transfer transferOf(std::ptrdiff_t result) {
  using State = Transfer::State;
  if (result > 0) {
    return {State::moved, static_cast<std::size_t>(result)};
  }
  if (result == 0) {
    return {State::ended};
  }
  if (errno == EAGAIN || errno == EINTR) {
    return {State::blocked};
  }
  return {State::failed, 0, {errno, std::generic_category()}};
}

TCPSocket TCPSocket::connecting(const sockaddr& to, std::optional<unsigned> interface) {
  TCPSocket made(openStreamSocket(to.sa_family, interface));
  require(connect(made.descriptor(), &to, lengthOf(to)) == 0 || errno == EINPROGRESS, "connect");
  return made;
}

std::optional<TCPSocket> TCPSocket::accepted(int listener, Endpoint& from) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  while (true) {
    Descriptor made(accept(listener, reinterpret_cast<sockaddr*>(&peer), &length));
    if (made) {
      fcntl(made.get(), F_SETFL, O_NONBLOCK);
      fcntl(made.get(), F_SETFD, FD_CLOEXEC);
      from = peer.ss_family == AF_INET ? Endpoint::of(reinterpret_cast<const sockaddr_in&>(peer))
                                       : Endpoint();
      return TCPSocket(std::move(made));
    }
    if (errno == EAGAIN) {
      return std::nullopt;
    }
    require(errno == EINTR || errno == ECONNABORTED, "accept");
  }
}

std::optional<std::string> TCPSocket::error() const {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
  return error == 0 ? std::nullopt : std::optional(errorText(error));
}

void TCPSocket::prepareToCarry(int socket) {
  setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  keepAlive(socket, aliveIdle, aliveInterval, aliveProbes);
}

Transfer TCPSocket::receive(std::span<std::uint8_t> into) {
  return transferOf(recv(descriptor(), into.data(), into.size(), MSG_DONTWAIT));
}

Transfer TCPSocket::send(ByteView octets) {
  return transferOf(::send(descriptor(), octets.data(), octets.size(), MSG_DONTWAIT | sendFlags));
}

void TCPSocket::endOutput() {
  shutdown(descriptor(), SHUT_WR);
}

void TCPSocket::abort() {
  const linger none{1, 0};
  setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  descriptor_.reset();
}

}  // namespace zk
