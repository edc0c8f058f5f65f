#include "Platform/ByteStreamPair.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include <poll.h>
#include <sys/socket.h>

#include "Platform/Sockets.h"

namespace zk {
namespace {

// The socket's pending error, or the error of asking.
int pendingError(int socket) {
  int error = 0;
  socklen_t length = sizeof error;
  return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

}  // namespace

std::unique_ptr<ByteStreamPair> ByteStreamPair::create(int socket) {
  int type = 0;
  socklen_t length = sizeof type;
  if (getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM) {
    return nullptr;
  }
  return std::unique_ptr<ByteStreamPair>(new ByteStreamPair(socket));
}

ByteStreamPair::~ByteStreamPair() {
  close();
}

void ByteStreamPair::open() {
  const int error = pendingError(socket_);
  status_ = error == 0 ? StreamStatus::open : StreamStatus::error;
  if (error != 0) {
    errorDescription_ = errorText(error);
  }
}

std::ptrdiff_t ByteStreamPair::read(std::span<std::uint8_t> into, Deadline deadline) {
  using std::chrono::milliseconds;
  const auto left =
      std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  const auto limit = std::clamp<long long>(left, 0, std::numeric_limits<int>::max());
  const int ready = pollSocket(socket_, POLLIN, static_cast<int>(limit));
  if (ready <= 0) {
    return ready;
  }
  ssize_t received = 0;
  do {
    received = recv(socket_, into.data(), into.size(), 0);
  } while (received < 0 && errno == EINTR);
  return received;
}

std::ptrdiff_t ByteStreamPair::write(ByteView bytes) {
  ssize_t sent = 0;
  do {
    sent = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

void ByteStreamPair::close() {
  if (socket_ >= 0) {
    closeSocket(socket_);
    socket_ = -1;
  }
  status_ = StreamStatus::closed;
}

}  // namespace zk
