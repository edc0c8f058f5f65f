#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>

#include "Base/Bytes.h"

namespace zk {

using MD5Digest = std::array<std::uint8_t, 16>;
using SHA1Digest = std::array<std::uint8_t, 20>;

/// Checks that both digests work on this machine, so that the start fails and not every datagram.
/// Throws std::runtime_error, as the digests themselves do.
void requireDigests();

MD5Digest md5(ByteView data);

/// HMAC-SHA1 (RFC 2104) of the concatenated parts.
SHA1Digest hmacSHA1(ByteView key, std::initializer_list<ByteView> parts);

/// Compares in a time that does not depend on where the first difference is. False for spans of
/// different sizes.
bool equalInConstantTime(ByteView a, ByteView b);

}  // namespace zk
