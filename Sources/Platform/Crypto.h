#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>

#include "Base/Bytes.h"

namespace zk {

using MD5Digest = std::array<std::uint8_t, 16>;
using SHA1Digest = std::array<std::uint8_t, 20>;

/// Finds out whether both digests can be made here, so that a start can fail where each datagram
/// would. Throws std::runtime_error, as they do themselves.
void requireDigests();

MD5Digest md5(ByteView data);

/// HMAC-SHA1 (RFC 2104) of the parts in order, as if they stood in one piece.
SHA1Digest hmacSHA1(ByteView key, std::initializer_list<ByteView> parts);

/// Compares without telling by its duration where the first difference is. False for spans of
/// different sizes.
bool equalInConstantTime(ByteView a, ByteView b);

}  // namespace zk
