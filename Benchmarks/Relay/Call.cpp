#include "Call.h"

#include <algorithm>
#include <array>

#include <sys/socket.h>

#include "Loopback/KitSocket.h"

namespace zk::bench {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto patience = 200ms;  // for what is under way at the end

/// One of the two streams of a call.
struct Stream {
  Bytes datagram;
  std::chrono::nanoseconds gap;
  unsigned least;  // datagrams at a time
  unsigned most;
  Clock::time_point next;
  unsigned times = 0;
};

}  // namespace

loopback::LoadResult runCall(const loopback::CallLeg& leg, std::chrono::milliseconds duration) {
  const auto start = Clock::now();
  const auto end = start + duration;
  Stream streams[] = {{leg.frame(Bytes(160)), 20ms, 1, 1, start},
                      {leg.frame(Bytes(1100)), 33333us, 4, 10, start}};
  loopback::Ledger ledger;
  std::array<std::uint8_t, 2048> buffer;
  for (auto now = start; now < end + patience; now = Clock::now()) {
    auto wake = end + patience;
    for (Stream& stream : streams) {
      if (now >= stream.next && now < end) {
        const unsigned more = stream.times++ % (stream.most - stream.least + 1);
        for (unsigned i = 0; i < stream.least + more; ++i) {
          ledger.stamp(&stream.datagram[leg.payloadAt]);
          send(leg.socket, stream.datagram.data(), stream.datagram.size(), 0);
        }
        stream.next += stream.gap;
      }
      wake = now < end ? std::min(wake, stream.next) : wake;
    }
    if (loopback::waitReadable(leg.socket,
                               std::chrono::ceil<std::chrono::milliseconds>(wake - Clock::now()))) {
      const ssize_t size = recv(leg.socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
      const auto length = static_cast<std::size_t>(std::max<ssize_t>(size, 0));
      ledger.take(ByteView(buffer).first(length).subspan(std::min(length, leg.payloadAt)));
    }
  }
  loopback::LoadResult result = ledger.close();
  result.seconds = std::chrono::duration<double>(duration).count();
  return result;
}

}  // namespace zk::bench
