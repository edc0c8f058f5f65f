#include "Platform/ByteStreamPair.h"

#include <array>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

namespace zk {
namespace {

using Kind = StreamResult::Kind;

// How many reads are discarded in one go: a far end that floods must not hold up the caller.
constexpr int mostReads = 16;

StreamResult failure() {
  return {Kind::failed, 0, {errno, std::generic_category()}};
}

// Runs `call`, again if a signal interrupts it. Absent when the socket is not ready.
template <typename Call>
std::optional<StreamResult> attempt(Call call) {
  ssize_t moved = 0;
  do {
    moved = call();
  } while (moved < 0 && errno == EINTR);
  if (moved < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    return std::nullopt;
  }
  return moved < 0    ? failure()
         : moved == 0 ? StreamResult{Kind::end}
                      : StreamResult{Kind::octets, static_cast<std::size_t>(moved)};
}

// Runs `call` when the socket is ready for it.
template <typename Call>
StreamResult whenReady(int socket, short events, Deadline deadline, const StopSignal* stop,
                       Call call) {
  while (true) {
    switch (waitFor(socket, events, deadline, stop)) {
      case Wait::ready:
        if (const auto result = attempt(call)) {
          return *result;
        }
        break;
      case Wait::timedOut:
        return {Kind::timedOut};
      case Wait::stopped:
        return {Kind::stopped};
      case Wait::failed:
        return failure();
    }
  }
}

}  // namespace

StreamResult ByteStreamPair::read(std::span<std::uint8_t> into, Deadline deadline) {
  return whenReady(socket_.get(), POLLIN, deadline, stop_,
                   [&] { return recv(socket_.get(), into.data(), into.size(), 0); });
}

StreamResult ByteStreamPair::write(ByteView bytes, Deadline deadline) {
  return whenReady(socket_.get(), POLLOUT, deadline, stop_,
                   [&] { return send(socket_.get(), bytes.data(), bytes.size(), sendFlags); });
}

std::optional<StreamResult> ByteStreamPair::takeEnd() {
  std::array<std::uint8_t, 4096> discarded;
  for (int i = 0; i < mostReads; ++i) {
    const auto result = attempt(
        [&] { return recv(socket_.get(), discarded.data(), discarded.size(), MSG_DONTWAIT); });
    if (!result || result->kind != Kind::octets) {
      return result;
    }
  }
  return std::nullopt;
}

}  // namespace zk
