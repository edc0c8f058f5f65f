#include "FarSide.h"

#include <deque>

#include "Loopback/SOCKS5Frame.h"
#include "Platform/Thread.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::bench {
namespace {

using namespace loopback;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds tick{50};  // how soon it notices that it is to end

struct OnTheWay {
  Clock::time_point due;
  Bytes datagram;
  Endpoint to;
};

constexpr std::uint16_t bindingMethod = 0x001;

// The framed answer to a framed Binding request; empty for any other datagram.
Bytes stunAnswer(ByteView datagram) {
  if (datagram.size() != socks5HeaderSize + TURNMessage::headerSize) {
    return {};
  }
  const auto request = TURNMessage::decode(datagram.subspan(socks5HeaderSize));
  if (!request || request->method != bindingMethod) {
    return {};
  }
  TURNMessage answer(bindingMethod, TURNClass::successResponse, request->txID);
  answer.append(TURNAttr::xorMappedAddress,
                TURNAttributes::encodeXorAddress(endpointAt("203.0.113.9", 40000)));
  return concatenated(datagram.first(socks5HeaderSize), answer.encode());
}

}  // namespace

FarSide::FarSide(Handler handler, KitSocket socket, std::chrono::milliseconds distance)
    : socket_(std::move(socket)), handler_(std::move(handler)), distance_(distance) {
  setBlocking(socket_.get(), tick);
  thread_ = startThread("kit.far", [this] { run(); });
}

FarSide::~FarSide() {
  ending_ = true;
  thread_.join();
}

void FarSide::run() {
  static thread_local std::uint8_t buffer[65536];
  std::deque<OnTheWay> waiting;
  while (!ending_) {
    while (!waiting.empty() && waiting.front().due <= Clock::now()) {
      socket_.send(waiting.front().datagram, waiting.front().to);
      waiting.pop_front();
    }
    if (!waiting.empty() &&
        !waitReadable(socket_.get(), std::chrono::ceil<std::chrono::milliseconds>(
                                         waiting.front().due - Clock::now()))) {
      continue;
    }
    const auto arrival = socket_.receive(buffer, 0);
    if (!arrival) {
      continue;
    }
    if (const Bytes answer = stunAnswer(arrival->datagram); !answer.empty()) {
      socket_.send(answer, arrival->from);
    } else if (!handler_ || handler_(arrival->datagram, arrival->from)) {
      if (distance_.count() == 0) {
        socket_.send(arrival->datagram, arrival->from);
      } else {
        waiting.push_back({Clock::now() + distance_,
                           {arrival->datagram.begin(), arrival->datagram.end()},
                           arrival->from});
      }
    }
  }
}

}  // namespace zk::bench
