#include "Loopback/SOCKS5Frame.h"

#include <algorithm>
#include <cstring>

#include "ZelkorTURN/TURNMessage.h"

namespace zk::loopback {
namespace {

constexpr std::uint8_t typeIPv4 = 0x01;

}  // namespace

void writeSOCKS5Header(std::uint8_t* to, const sockaddr_in& address) {
  to[0] = to[1] = to[2] = 0;
  to[3] = typeIPv4;
  std::memcpy(to + 4, &address.sin_addr, 4);
  std::memcpy(to + 8, &address.sin_port, 2);
}

Bytes socks5Frame(const sockaddr_in& address, ByteView payload) {
  Bytes frame(socks5HeaderSize + payload.size());
  writeSOCKS5Header(frame.data(), address);
  std::copy(payload.begin(), payload.end(), frame.begin() + socks5HeaderSize);
  return frame;
}

std::optional<SOCKS5Unframed> socks5Unframe(ByteView frame) {
  if (frame.size() < socks5HeaderSize || frame[0] != 0 || frame[1] != 0 || frame[2] != 0 ||
      frame[3] != typeIPv4) {
    return std::nullopt;
  }
  SOCKS5Unframed result{{}, frame.subspan(socks5HeaderSize)};
  result.destination.sin_family = AF_INET;
  std::memcpy(&result.destination.sin_addr, &frame[4], 4);
  std::memcpy(&result.destination.sin_port, &frame[8], 2);
  return result;
}

bool looksLikeSTUN(ByteView payload) {
  constexpr auto& cookie = TURNMessage::magicCookie;
  return payload.size() >= TURNMessage::headerSize && payload[0] < 0x40 &&
         std::equal(cookie.begin(), cookie.end(), payload.begin() + 4);
}

}  // namespace zk::loopback
