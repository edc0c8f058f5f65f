#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Base/LogLine.h"
#include "ZelkorTURN/NonceBook.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNAuth.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk {

/// The one long-term credential that clients prove to know.
struct Credentials {
  std::string username;
  std::string realm;
  std::string password;
};

/// Who may ask at all: the long-term credential mechanism of a server (RFC 5389 section 10.2.2).
/// `now` is the server clock in whole seconds. One thread.
class RequestGate {
 public:
  /// `realm` goes into every challenge. `acceptFingerprint`: see verifyMessageIntegrity(). Throws
  /// std::runtime_error when there is no digest to be had.
  RequestGate(const Credentials& credentials, std::string realm, bool acceptFingerprint);

  /// Where diagnostics go.
  LogCallback debugLog;

  /// The challenge that answers a message which is not authentic; absent when it is. `raw` is the
  /// datagram as received, which MESSAGE-INTEGRITY covers.
  std::optional<TURNMessage> refusal(const TURNMessageView& message, ByteView raw,
                                     std::uint32_t now);

  /// What authentic messages are signed with, and their answers.
  const TURNAuth::LongTermKey& key() const { return key_; }

  /// Gives back what nonces that are long past take.
  void prune(std::uint32_t now) { issuedNonces_.prune(now); }

 private:
  TURNMessage make401Challenge(const TransactionID& txID, std::uint16_t method, std::uint32_t now,
                               const TURNAttributes::ErrorCode& error);
  void issueNonce(std::string_view nonce, std::uint32_t now) { issuedNonces_.issue(nonce, now); }

  const TURNAuth::LongTermKey key_;
  const std::string realm_;
  const bool acceptFingerprint_;
  NonceBook issuedNonces_;
};

}  // namespace zk
