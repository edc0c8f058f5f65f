#include "Platform/Crypto.h"

#include <memory>
#include <stdexcept>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

namespace zk {
namespace {

// A configuration of the library without these algorithms refuses them, as does a broken
// installation, and no answer may leave without the right digest.
void require(bool ok) {
  if (!ok) {
    throw std::runtime_error("the crypto library does not offer MD5 and HMAC-SHA1");
  }
}

struct Deleter {
  void operator()(EVP_MAC* algorithm) const { EVP_MAC_free(algorithm); }
  void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_MAC_CTX, Deleter>;

// An HMAC-SHA1 without a key, made once: looking up an algorithm costs more than using it.
const EVP_MAC_CTX* hmacTemplate() {
  static const EVP_MAC_CTX* const prepared = [] {
    const std::unique_ptr<EVP_MAC, Deleter> hmac(
        EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr));
    require(hmac != nullptr);
    Context context(EVP_MAC_CTX_new(hmac.get()));
    char digest[] = "SHA1";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_end()};
    require(context != nullptr && EVP_MAC_CTX_set_params(context.get(), parameters) == 1);
    return context.release();
  }();
  return prepared;
}

}  // namespace

void requireDigests() {
  hmacSHA1(md5({}), {});
}

MD5Digest md5(ByteView data) {
  MD5Digest digest;
  require(EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_md5(), nullptr) == 1);
  return digest;
}

SHA1Digest hmacSHA1(ByteView key, std::initializer_list<ByteView> parts) {
  SHA1Digest digest;
  std::size_t length = 0;
  const Context context(EVP_MAC_CTX_dup(hmacTemplate()));
  require(context != nullptr && EVP_MAC_init(context.get(), key.data(), key.size(), nullptr) == 1);
  for (const ByteView part : parts) {
    require(EVP_MAC_update(context.get(), part.data(), part.size()) == 1);
  }
  require(EVP_MAC_final(context.get(), digest.data(), &length, digest.size()) == 1 &&
          length == digest.size());
  return digest;
}

bool equalInConstantTime(ByteView a, ByteView b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace zk
