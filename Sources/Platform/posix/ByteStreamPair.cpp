#include "Platform/ByteStreamPair.h"

#include <array>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

namespace zk {
namespace {

// As much is thrown away in one go; a far end that floods must not keep the caller.
constexpr int mostReads = 16;

// Runs `call` until a signal does not interrupt it.
template <typename Call>
std::ptrdiff_t uninterrupted(Call call) {
  ssize_t result = 0;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

bool wouldBlock(std::ptrdiff_t result) {
  return result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

// Runs `call` when the socket is ready for it.
template <typename Call>
std::ptrdiff_t whenReady(int socket, short events, Deadline deadline, const StopSignal* stop,
                         Call call) {
  while (true) {
    const Wait wait = waitFor(socket, events, deadline, stop);
    if (wait != Wait::ready) {
      return wait == Wait::failed ? -1 : 0;
    }
    const std::ptrdiff_t result = uninterrupted(call);
    if (!wouldBlock(result)) {
      return result;
    }
  }
}

}  // namespace

std::ptrdiff_t ByteStreamPair::read(std::span<std::uint8_t> into, Deadline deadline) {
  return whenReady(socket_.get(), POLLIN, deadline, stop_,
                   [&] { return recv(socket_.get(), into.data(), into.size(), 0); });
}

std::ptrdiff_t ByteStreamPair::write(ByteView bytes, Deadline deadline) {
  return whenReady(socket_.get(), POLLOUT, deadline, stop_,
                   [&] { return send(socket_.get(), bytes.data(), bytes.size(), sendFlags); });
}

std::optional<std::string> ByteStreamPair::takeEnd() {
  std::array<std::uint8_t, 4096> discarded;
  for (int i = 0; i < mostReads; ++i) {
    const std::ptrdiff_t received = uninterrupted(
        [&] { return recv(socket_.get(), discarded.data(), discarded.size(), MSG_DONTWAIT); });
    if (received == 0) {
      return "end of stream";
    }
    if (received < 0) {
      return wouldBlock(received) ? std::nullopt : std::optional(errorText(errno));
    }
  }
  return std::nullopt;
}

}  // namespace zk
