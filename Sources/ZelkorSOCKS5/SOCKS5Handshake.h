#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"

namespace zk {

/// Throws SOCKS5Error::authFailed for a credential that no proxy can be sent, since its length has
/// one octet (RFC 1929); `name` says in the text which one it is.
void requireSendable(const char* name, const std::string& credential);

/// The client's side of the method selection (RFC 1928 section 3) and the login (RFC 1929), as
/// steps without I/O, for those who wait for a proxy and those who must not. One after the other:
/// send message(), take() an answer of answerSize octets, until isDone().
class SOCKS5Handshake {
 public:
  static constexpr std::size_t answerSize = 2;

  /// Credentials are offered only when both are present, and must outlive this. Throws SOCKS5Error
  /// for one that cannot be sent.
  SOCKS5Handshake(const std::optional<std::string>& username,
                  const std::optional<std::string>& password);

  /// What is said next. Throws SOCKS5Error when the proxy wants a login and there is none.
  Bytes message() const;
  /// The answer to it. Throws SOCKS5Error when the proxy refuses or is not one.
  void take(ByteView answer);

  /// The proxy wants a user name and a password.
  bool wantsLogin() const { return wantsLogin_; }
  bool isDone() const { return isDone_; }

 private:
  void takeMethod(ByteView choice);

  bool hasCredentials() const { return username_ && password_; }

  const std::optional<std::string>& username_;
  const std::optional<std::string>& password_;
  bool wantsLogin_ = false;
  bool isDone_ = false;
};

/// Requests and replies behind the handshake (RFC 1928 sections 4 and 6).
namespace SOCKS5Request {

enum class Command : std::uint8_t { connect = 0x01, udpAssociate = 0x03 };
Bytes encode(Command command, const Endpoint& to);

/// Why a proxy did not connect, and that it did: what programs tell apart.
enum class Reply : std::uint8_t {
  succeeded = 0x00,
  generalFailure = 0x01,
  networkUnreachable = 0x03,
  refused = 0x05
};

/// The octets of the reply that begins with `start`, as far as that tells: more than are there
/// until the reply is whole. Throws SOCKS5Error for what is no reply.
std::size_t replySize(ByteView start);

}  // namespace SOCKS5Request
}  // namespace zk
