#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Base/Bytes.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {

/// The values inside attributes (RFC 5389 section 15, RFC 5766 section 14).
namespace TURNAttributes {

using STUN::decodeXorAddress;
using STUN::encodeXorAddress;
using STUN::XorAddress;

/// One error with its reason phrase, as ERROR-CODE carries it.
struct ErrorCode {
  int code = 0;  // 0 to 25599
  std::string_view reason;
};

/// Every error that the server answers.
inline constexpr ErrorCode badRequest{400, "Bad Request"};
inline constexpr ErrorCode missingChannelNumber{400, "Bad Request: missing CHANNEL-NUMBER"};
inline constexpr ErrorCode channelOutOfRange{400, "Bad Request: channel number out of range"};
inline constexpr ErrorCode missingPeerAddress{400, "Bad Request: missing XOR-PEER-ADDRESS"};
inline constexpr ErrorCode unauthorized{401, "Unauthorized"};
inline constexpr ErrorCode allocationMismatch{437, "Allocation Mismatch"};
inline constexpr ErrorCode staleNonce{438, "Stale Nonce"};
inline constexpr ErrorCode unsupportedTransport{442, "Unsupported Transport Protocol"};
inline constexpr ErrorCode serverError{500, "Server Error"};

/// The value of ERROR-CODE: two zero octets, class, number, reason phrase.
Bytes encodeErrorCode(const ErrorCode& error);

/// Class times 100 plus number, both octets taken whole; absent for a value under 4 octets.
std::optional<int> decodeErrorCode(ByteView value);

/// REQUESTED-TRANSPORT: whether the first octet asks for UDP. An empty value does not.
bool isUDPTransport(ByteView value);

/// LIFETIME in seconds; a value under 4 octets counts as absent.
std::optional<std::uint32_t> decodeLifetime(ByteView value);

/// CHANNEL-NUMBER; a value under 2 octets counts as absent.
std::optional<std::uint16_t> decodeChannelNumber(ByteView value);

/// NONCE: the whole value as 7-bit ASCII text; absent when an octet is 0x80 or above.
std::optional<std::string_view> decodeNonce(ByteView value);

}  // namespace TURNAttributes

}  // namespace zk
