#include "Loopback/SOCKS5Frame.h"

#include <algorithm>
#include <array>

#include "ZelkorTURN/TURNMessage.h"

namespace zk::loopback {
namespace {

constexpr std::uint8_t typeIPv4 = 0x01;

}  // namespace

void writeSOCKS5Header(std::uint8_t* to, const Endpoint& address) {
  to[0] = to[1] = to[2] = 0;
  to[3] = typeIPv4;
  std::ranges::copy(address.octets(), to + 4);
  writeUInt16(to + 8, address.port);
}

Bytes socks5Frame(const Endpoint& address, ByteView payload) {
  std::array<std::uint8_t, socks5HeaderSize> header;
  writeSOCKS5Header(header.data(), address);
  return concatenated(header, payload);
}

std::optional<SOCKS5Unframed> socks5Unframe(ByteView frame) {
  if (frame.size() < socks5HeaderSize || frame[0] != 0 || frame[1] != 0 || frame[2] != 0 ||
      frame[3] != typeIPv4) {
    return std::nullopt;
  }
  const std::uint32_t address = std::uint32_t{readUInt16(frame, 4)} << 16 | readUInt16(frame, 6);
  return SOCKS5Unframed{{address, readUInt16(frame, 8)}, frame.subspan(socks5HeaderSize)};
}

bool looksLikeSTUN(ByteView payload) {
  constexpr auto& cookie = TURNMessage::magicCookie;
  return payload.size() >= TURNMessage::headerSize && payload[0] < 0x40 &&
         std::equal(cookie.begin(), cookie.end(), payload.begin() + 4);
}

}  // namespace zk::loopback
