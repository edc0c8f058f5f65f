#include "Platform/Crypto.h"

#include <cstdlib>
#include <memory>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

namespace zk {
namespace {

// Only a broken installation of the library refuses these algorithms, and no answer may leave
// without the right digest.
void require(bool ok) {
  if (!ok) {
    std::abort();
  }
}

struct ContextDeleter {
  void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_MAC_CTX, ContextDeleter>;

// An HMAC-SHA1 without a key, made once: looking an algorithm up costs more than using it.
const EVP_MAC_CTX* hmacTemplate() {
  static const EVP_MAC_CTX* const prepared = [] {
    EVP_MAC* const hmac = EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr);
    EVP_MAC_CTX* const context = EVP_MAC_CTX_new(hmac);
    EVP_MAC_free(hmac);
    char digest[] = "SHA1";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_end()};
    require(context != nullptr && EVP_MAC_CTX_set_params(context, parameters) == 1);
    return context;
  }();
  return prepared;
}

}  // namespace

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
