// One system call for each datagram: for systems that have no call for many. Where there is one,
// this shows that nothing else depends on it.

#include <cerrno>

#include "Platform/posix/Messages.h"

namespace zk {
namespace {

// Calls `call` for each message until one fails.
template <typename Call>
int untilFailure(std::span<Message> messages, Call call) {
  int done = 0;
  for (Message& message : messages) {
    ssize_t moved = 0;
    do {
      moved = call(&message.header);
    } while (moved < 0 && errno == EINTR);
    if (moved < 0) {
      return done > 0 ? done : -1;
    }
    message.length = static_cast<unsigned>(moved);
    ++done;
  }
  return done;
}

}  // namespace

int receiveMessages(int socket, std::span<Message> messages) {
  return untilFailure(messages, [&](msghdr* m) { return recvmsg(socket, m, MSG_DONTWAIT); });
}

int sendMessages(int socket, std::span<Message> messages) {
  return untilFailure(messages, [&](msghdr* m) { return sendmsg(socket, m, MSG_DONTWAIT); });
}

const bool cutsSegments = false;
void cutIntoSegments(msghdr& /*message*/, std::size_t /*size*/, SegmentControl& /*control*/) {}
bool refusesSegments(int /*error*/) {
  return false;
}

}  // namespace zk
