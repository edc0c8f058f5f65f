#include "Platform/Sockets.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "Platform/StopSignal.h"
#include "Platform/posix/System.h"

namespace zk {
namespace {

// poll(2) does not count the time for which the machine is suspended, a deadline does.
constexpr std::int64_t longestPoll = 1000;  // milliseconds

}  // namespace

std::string errorText(int error) {
  return std::generic_category().message(error);
}

std::string numericText(const sockaddr& address) {
  std::array<char, NI_MAXHOST> text{};
  getnameinfo(&address, lengthOf(address), text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
  return text.data();
}

Wait waitFor(int descriptor, short events, Deadline deadline, const StopSignal* stop) {
  using std::chrono::milliseconds;
  std::array<pollfd, 2> watched{
      {{descriptor, events, 0}, {stop != nullptr ? stop->descriptor() : -1, POLLIN, 0}}};
  while (true) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - SteadyClock::now()).count();
    const auto limit =
        deadline == Deadline::max() ? -1 : std::clamp<std::int64_t>(left, 0, longestPoll);
    const int ready = poll(watched.data(), watched.size(), static_cast<int>(limit));
    if (stop != nullptr && stop->isRaised()) {
      return Wait::stopped;
    }
    if (ready < 0 && errno != EINTR) {
      return Wait::failed;
    }
    if (ready > 0) {
      return Wait::ready;
    }
    if (left <= 0) {
      return Wait::timedOut;
    }
  }
}

Wait connectSocket(int socket, const sockaddr& to, Deadline deadline, const StopSignal* stop) {
  int error = connect(socket, &to, lengthOf(to)) == 0 ? 0 : errno;
  if (error == EINPROGRESS) {
    const Wait wait = waitFor(socket, POLLOUT, deadline, stop);
    if (wait != Wait::ready) {
      return wait;
    }
    socklen_t size = sizeof error;
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
  }
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "connect");
  }
  return Wait::ready;
}

Descriptor openStreamSocket(int family, std::optional<unsigned> interface) {
  Descriptor opened = openNonBlockingSocket(family, SOCK_STREAM, IPPROTO_TCP);
  if (interface) {
    pinToInterface(opened.get(), family, *interface);
    // Bound to a port, it has that one alone. Connecting would pick one as well, but Linux gives it
    // also to a connection to the same place that is not pinned, of a program that uses the same
    // proxy, which would end ours for it. Where there is no free one, better that than none.
    sockaddr_storage anyPort{};
    anyPort.ss_family = static_cast<sa_family_t>(family);
    const auto& address = reinterpret_cast<const sockaddr&>(anyPort);
    [[maybe_unused]] const int bound = bind(opened.get(), &address, lengthOf(address));
  }
  return opened;
}

void keepAlive(int socket, std::chrono::seconds idle, std::chrono::seconds interval, int probes) {
  setOption(socket, IPPROTO_TCP, keepAliveIdleOption, static_cast<int>(idle.count()));
  setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(interval.count()));
  setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, probes);
  setOption(socket, SOL_SOCKET, SO_KEEPALIVE, probes > 0 ? 1 : 0);
}

}  // namespace zk
