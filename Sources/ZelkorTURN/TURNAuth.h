#pragma once

#include <exception>
#include <set>
#include <string>
#include <string_view>

#include "Base/Bytes.h"
#include "Platform/Crypto.h"
#include "Platform/Random.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk {

/// The system's random source failed; `status` is its error number.
class TURNAuthError : public std::exception {
 public:
  static TURNAuthError randomGenerationFailed(std::int32_t status) { return TURNAuthError(status); }
  std::int32_t status() const { return status_; }
  const char* what() const noexcept override { return "randomGenerationFailed"; }

 private:
  explicit TURNAuthError(std::int32_t status) : status_(status) {}
  std::int32_t status_;
};

/// The long-term credential mechanism (RFC 5389 sections 10.2 and 15.4). Stateless, any thread.
namespace TURNAuth {

using LongTermKey = MD5Digest;

/// A MESSAGE-INTEGRITY attribute on the wire.
inline constexpr std::size_t integritySize = TURNMessage::attributeHeaderSize + sizeof(SHA1Digest);

/// MD5(username ":" realm ":" password) over the UTF-8 octets, without SASLprep.
LongTermKey longTermKey(std::string_view username, std::string_view realm,
                        std::string_view password);

/// Appends MESSAGE-INTEGRITY, which must stay the last attribute: its HMAC covers a header whose
/// length already counts it. Throws std::length_error as append() does.
void appendMessageIntegrity(TURNMessage& message, ByteView key);

/// Whether the first MESSAGE-INTEGRITY of a datagram, as received, was made with `key` over all
/// that stands before it. The header enters as received, length field included: a sender that
/// appends FINGERPRINT after signing, which RFC 5389 section 15.4 allows, is refused.
///
/// With `acceptFingerprint` it is not: where nothing but a FINGERPRINT follows, the length ends at
/// MESSAGE-INTEGRITY, as that section has it, and the FINGERPRINT must hold as well (section 15.5).
/// Every other datagram is judged as without.
bool verifyMessageIntegrity(ByteView datagram, ByteView key, bool acceptFingerprint = false);

/// 32 lowercase hexadecimal digits of 16 random octets. Throws TURNAuthError.
std::string makeNonce(RandomSource source = randomBytes);

/// Whether `nonce` is one of `issued`.
bool validateNonce(const std::string& nonce, const std::set<std::string>& issued);

}  // namespace TURNAuth
}  // namespace zk
