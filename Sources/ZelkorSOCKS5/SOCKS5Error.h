#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace zk {

/// What can go wrong between this machine and the proxy: the error type of the control connection,
/// the probe and the relays. what() is description().
class SOCKS5Error : public std::exception {
 public:
  enum class Kind {
    connectionFailed,      // resolution, connect, streams, reads and writes, time limits
    authFailed,            // method negotiation, RFC 1929 status
    udpAssociateRejected,  // REP other than 0x00
    protocolError,         // a version or address type that is not accepted
    stunTimeout,           // no STUN answer came back through the relay
    stunMalformed,         // the relay's answer could not be unwrapped or parsed
  };

  /// What a failed connection came to, for those who advise; texts are for people.
  enum class Cause { other, timedOut, closed, reset, refused, unreachable, stopped };

  static SOCKS5Error connectionFailed(const std::string& text, Cause cause = Cause::other);
  static SOCKS5Error authFailed(const std::string& text);
  static SOCKS5Error udpAssociateRejected(std::uint8_t replyCode);
  static SOCKS5Error protocolError(const std::string& text);
  static SOCKS5Error stunTimeout();
  static SOCKS5Error stunMalformed();

  Kind kind() const { return kind_; }
  Cause cause() const { return cause_; }
  /// One line for people and logs. Never holds a credential.
  const std::string& description() const { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  SOCKS5Error(Kind kind, std::string description, Cause cause = Cause::other)
      : kind_(kind), cause_(cause), description_(std::move(description)) {}

  Kind kind_;
  Cause cause_;
  std::string description_;
};

}  // namespace zk
