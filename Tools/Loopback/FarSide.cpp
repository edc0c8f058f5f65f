#include "Loopback/FarSide.h"

#include "Base/IPv4.h"
#include "Loopback/SOCKS5Frame.h"
#include "Platform/Thread.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::loopback {
namespace {

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
                *TURNAttributes::encodeXorAddress("203.0.113.9", 40000));
  return concatenated(datagram.first(socks5HeaderSize), answer.encode());
}

}  // namespace

FarSide::FarSide(Handler handler, KitSocket socket)
    : socket_(std::move(socket)), handler_(std::move(handler)) {
  setBlocking(socket_.get(), std::chrono::milliseconds(50));
  thread_ = startThread("kit.far", [this] { run(); });
}

FarSide::~FarSide() {
  ending_ = true;
  thread_.join();
}

std::uint16_t FarSide::port() const {
  return portNumber(socket_.localAddress());
}

void FarSide::run() {
  static thread_local std::uint8_t buffer[65536];
  while (!ending_) {
    const auto arrival = socket_.receive(buffer, 0);
    if (!arrival) {
      continue;
    }
    if (const Bytes answer = stunAnswer(arrival->datagram); !answer.empty()) {
      socket_.send(answer, arrival->from);
    } else if (!handler_ || handler_(arrival->datagram, arrival->from)) {
      socket_.send(arrival->datagram, arrival->from);
    }
  }
}

}  // namespace zk::loopback
