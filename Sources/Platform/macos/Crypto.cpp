#include "Platform/Crypto.h"

#include <CommonCrypto/CommonDigest.h>
#include <string.h>

namespace zk {
namespace {

using Block = std::array<std::uint8_t, CC_SHA1_BLOCK_BYTES>;

void update(CC_SHA1_CTX& context, ByteView data) {
  CC_SHA1_Update(&context, data.data(), static_cast<CC_LONG>(data.size()));
}

// The key with each octet changed by `pad`: what the digest begins with (RFC 2104 section 2).
Block padded(ByteView key, std::uint8_t pad) {
  Block block;
  block.fill(pad);
  for (std::size_t i = 0; i < key.size(); ++i) {
    block[i] ^= key[i];
  }
  return block;
}

SHA1Digest sha1(ByteView first, std::initializer_list<ByteView> rest) {
  SHA1Digest digest;
  CC_SHA1_CTX context;
  CC_SHA1_Init(&context);
  update(context, first);
  for (const ByteView part : rest) {
    update(context, part);
  }
  CC_SHA1_Final(digest.data(), &context);
  return digest;
}

}  // namespace

void requireDigests() {}  // they are part of the C library

MD5Digest md5(ByteView data) {
  MD5Digest digest;
  // Broken as a digest, and so deprecated; the long-term key is made with it (RFC 5389 section
  // 15.4), and there is no other.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  CC_MD5(data.data(), static_cast<CC_LONG>(data.size()), digest.data());
#pragma clang diagnostic pop
  return digest;
}

SHA1Digest hmacSHA1(ByteView key, std::initializer_list<ByteView> parts) {
  SHA1Digest shortened;
  if (key.size() > CC_SHA1_BLOCK_BYTES) {
    shortened = sha1(key, {});
    key = shortened;
  }
  const SHA1Digest inner = sha1(padded(key, 0x36), parts);
  return sha1(padded(key, 0x5C), {inner});
}

bool equalInConstantTime(ByteView a, ByteView b) {
  return a.size() == b.size() && timingsafe_bcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace zk
