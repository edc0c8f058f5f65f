#include "ZelkorTURN/TURNAttributes.h"

#include <algorithm>

namespace zk::TURNAttributes {
namespace {

constexpr std::uint8_t protocolUDP = 17;

}  // namespace

Bytes encodeErrorCode(const ErrorCode& error) {
  Bytes value(4 + error.reason.size());
  value[2] = static_cast<std::uint8_t>(error.code / 100);
  value[3] = static_cast<std::uint8_t>(error.code % 100);
  std::copy(error.reason.begin(), error.reason.end(), value.begin() + 4);
  return value;
}

std::optional<int> decodeErrorCode(ByteView value) {
  if (value.size() < 4) {
    return std::nullopt;
  }
  return value[2] * 100 + value[3];
}

bool isUDPTransport(ByteView value) {
  return !value.empty() && value[0] == protocolUDP;
}

std::optional<std::uint32_t> decodeLifetime(ByteView value) {
  if (value.size() < 4) {
    return std::nullopt;
  }
  return readUInt32(value, 0);
}

std::optional<std::uint16_t> decodeChannelNumber(ByteView value) {
  if (value.size() < 2) {
    return std::nullopt;
  }
  return readUInt16(value, 0);
}

std::optional<std::string_view> decodeNonce(ByteView value) {
  if (std::any_of(value.begin(), value.end(), [](std::uint8_t octet) { return octet >= 0x80; })) {
    return std::nullopt;
  }
  return std::string_view(reinterpret_cast<const char*>(value.data()), value.size());
}

}  // namespace zk::TURNAttributes
