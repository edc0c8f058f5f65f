#include "ZelkorSOCKS5/SOCKS5Error.h"

#include <iterator>

#include <fmt/format.h>

namespace zk {
namespace {

// The reply codes of RFC 1928 section 6, from 0x01 on. 0x07 is "command not supported", and UDP
// ASSOCIATE is the only command that is ever sent.
constexpr const char* replyTexts[] = {"general SOCKS server failure",
                                      "connection not allowed",
                                      "network unreachable",
                                      "host unreachable",
                                      "connection refused",
                                      "TTL expired",
                                      "UDP ASSOCIATE not supported by proxy",
                                      "address type not supported"};

}  // namespace

SOCKS5Error SOCKS5Error::connectionFailed(const std::string& text, Cause cause) {
  return {Kind::connectionFailed, "TCP connect to proxy failed: " + text, cause};
}

SOCKS5Error SOCKS5Error::authFailed(const std::string& text) {
  return {Kind::authFailed, "auth failed: " + text};
}

SOCKS5Error SOCKS5Error::udpAssociateRejected(std::uint8_t replyCode) {
  const bool isKnown = replyCode >= 1 && replyCode <= std::size(replyTexts);
  return {Kind::udpAssociateRejected,
          isKnown ? replyTexts[replyCode - 1] : fmt::format("reply code 0x{:x}", replyCode)};
}

SOCKS5Error SOCKS5Error::protocolError(const std::string& text) {
  return {Kind::protocolError, "SOCKS5 protocol error: " + text};
}

SOCKS5Error SOCKS5Error::stunTimeout() {
  return {Kind::stunTimeout, "STUN reply timed out (proxy didn't forward UDP back)"};
}

SOCKS5Error SOCKS5Error::stunMalformed() {
  return {Kind::stunMalformed, "proxy returned malformed UDP payload"};
}

}  // namespace zk
