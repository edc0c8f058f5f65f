#include "FarSide.h"

#include <algorithm>

#include <sys/socket.h>

#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::bench {
namespace {

constexpr std::uint16_t bindingMethod = 0x001;

// The framed answer to a framed Binding request; empty for any other datagram.
Bytes stunAnswer(ByteView datagram) {
  constexpr std::size_t header = SOCKS5UDPFrame::headerSize;
  if (datagram.size() != header + TURNMessage::headerSize) {
    return {};
  }
  const auto request = TURNMessage::decode(datagram.subspan(header));
  if (!request || request->method != bindingMethod) {
    return {};
  }
  TURNMessage answer(bindingMethod, TURNClass::successResponse, request->txID);
  answer.append(TURNAttr::xorMappedAddress,
                *TURNAttributes::encodeXorAddress("203.0.113.9", 40000));
  Bytes frame(datagram.begin(), datagram.begin() + header);
  const Bytes wire = answer.encode();
  frame.insert(frame.end(), wire.begin(), wire.end());
  return frame;
}

}  // namespace

FarSide::FarSide() {
  socket_ = openUDPSocket();
  bindSocket(socket_, socketAddress("127.0.0.1", 0));
  port_ = portNumber(localAddress(socket_));
  thread_ = std::thread([this] { run(); });
}

FarSide::~FarSide() {
  ending_ = true;
  shutdownSocket(socket_);
  thread_.join();
  closeSocket(socket_);
}

void FarSide::run() {
  static thread_local std::uint8_t buffer[65536];
  while (!ending_) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const ssize_t n =
        recvfrom(socket_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &length);
    if (n <= 0) {
      continue;
    }
    if (static_cast<std::size_t>(n) == SOCKS5UDPFrame::headerSize + spoiledSize) {
      buffer[3] = 0x7F;  // the address type
    }
    const ByteView datagram(buffer, static_cast<std::size_t>(n));
    const Bytes answer = stunAnswer(datagram);
    sendDatagram(socket_, answer.empty() ? datagram : ByteView(answer), sender);
  }
}

}  // namespace zk::bench
