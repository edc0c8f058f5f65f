#include "ZelkorSOCKS5/SOCKS5Error.h"

#include <fmt/format.h>

namespace zk {
namespace {

// The reply codes of RFC 1928 section 6. 0x07 is "command not supported", and UDP ASSOCIATE is the
// only command that is ever sent.
std::string replyText(std::uint8_t code) {
  switch (code) {
    case 0x01:
      return "general SOCKS server failure";
    case 0x02:
      return "connection not allowed";
    case 0x03:
      return "network unreachable";
    case 0x04:
      return "host unreachable";
    case 0x05:
      return "connection refused";
    case 0x06:
      return "TTL expired";
    case 0x07:
      return "UDP ASSOCIATE not supported by proxy";
    case 0x08:
      return "address type not supported";
    default:
      return fmt::format("reply code 0x{:x}", code);
  }
}

}  // namespace

SOCKS5Error SOCKS5Error::connectionFailed(const std::string& text, Cause cause) {
  return {Kind::connectionFailed, "TCP connect to proxy failed: " + text, cause};
}

SOCKS5Error SOCKS5Error::authFailed(const std::string& text) {
  return {Kind::authFailed, "auth failed: " + text};
}

SOCKS5Error SOCKS5Error::udpAssociateRejected(std::uint8_t replyCode) {
  return {Kind::udpAssociateRejected, replyText(replyCode)};
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
