#include <gtest/gtest.h>

#include "ZelkorSOCKS5/SOCKS5Error.h"

namespace zk {
namespace {

TEST(SOCKS5Error, DescribesEachKind) {
  using Kind = SOCKS5Error::Kind;
  const struct {
    SOCKS5Error error;
    Kind kind;
    const char* description;
  } cases[] = {
      {SOCKS5Error::connectionFailed("x"), Kind::connectionFailed,
       "TCP connect to proxy failed: x"},
      {SOCKS5Error::authFailed("x"), Kind::authFailed, "auth failed: x"},
      {SOCKS5Error::protocolError("x"), Kind::protocolError, "SOCKS5 protocol error: x"},
      {SOCKS5Error::stunTimeout(), Kind::stunTimeout,
       "STUN reply timed out (proxy didn't forward UDP back)"},
      {SOCKS5Error::stunMalformed(), Kind::stunMalformed, "proxy returned malformed UDP payload"}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.error.kind(), c.kind);
    EXPECT_EQ(c.error.description(), c.description);
    EXPECT_STREQ(c.error.what(), c.description);
  }
  const std::pair<std::uint8_t, const char*> replies[] = {
      {0x00, "reply code 0x0"},
      {0x01, "general SOCKS server failure"},
      {0x02, "connection not allowed"},
      {0x03, "network unreachable"},
      {0x04, "host unreachable"},
      {0x05, "connection refused"},
      {0x06, "TTL expired"},
      {0x07, "UDP ASSOCIATE not supported by proxy"},
      {0x08, "address type not supported"},
      {0x09, "reply code 0x9"},
      {0x0A, "reply code 0xa"},
      {0xFF, "reply code 0xff"}};
  for (const auto& [code, text] : replies) {
    EXPECT_EQ(SOCKS5Error::udpAssociateRejected(code).description(), text);
    EXPECT_EQ(SOCKS5Error::udpAssociateRejected(code).kind(), Kind::udpAssociateRejected);
  }
}

}  // namespace
}  // namespace zk
