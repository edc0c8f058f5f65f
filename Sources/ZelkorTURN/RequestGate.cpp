#include "ZelkorTURN/RequestGate.h"

#include <utility>

namespace zk {
namespace {

// What goes out when the random source fails. It is in the book like any other nonce.
constexpr std::string_view fallbackNonce = "00000000000000000000000000000000";

}  // namespace

RequestGate::RequestGate(const Credentials& credentials, std::string realm, bool acceptFingerprint)
    : key_(TURNAuth::longTermKey(credentials.username, credentials.realm, credentials.password)),
      realm_(std::move(realm)),
      acceptFingerprint_(acceptFingerprint) {}

std::optional<TURNMessage> RequestGate::refusal(const TURNMessageView& message, ByteView raw,
                                                std::uint32_t now) {
  const auto challenge = [&](const TURNAttributes::ErrorCode& error) {
    return make401Challenge(message.txID, message.method, now, error);
  };

  // USERNAME and REALM need only be there: who signs with the right key knows the right values.
  const bool hasMI = message.first(TURNAttr::messageIntegrity).has_value();
  const bool hasUsername = message.first(TURNAttr::username).has_value();
  const bool hasRealm = message.first(TURNAttr::realm).has_value();
  const auto nonceValue = message.first(TURNAttr::nonce);
  if (!hasMI || !hasUsername || !hasRealm || !nonceValue) {
    logLine(
        debugLog,
        FMT_COMPILE(
            "auth: no MESSAGE-INTEGRITY (hasMI={} hasUsername={} hasRealm={} hasNonce={}) → 401"),
        hasMI, hasUsername, hasRealm, nonceValue.has_value());
    return challenge(TURNAttributes::unauthorized);
  }

  const auto nonce = TURNAttributes::decodeNonce(*nonceValue);
  if (!nonce) {
    logLine(debugLog, FMT_COMPILE("auth: nonce attribute missing or non-ASCII → 401"));
    return challenge(TURNAttributes::unauthorized);
  }
  const auto issued = issuedNonces_.issueTime(*nonce);
  if (!issued) {
    logLine(debugLog, FMT_COMPILE("auth: nonce unknown (not in issued set, {} active) → 438"),
            issuedNonces_.size());
    return challenge(TURNAttributes::staleNonce);
  }
  const std::uint32_t age = now - *issued;
  if (age > NonceBook::timeToLive) {
    logLine(debugLog, FMT_COMPILE("auth: nonce TTL expired (issued {}s ago) → 438"), age);
    return challenge(TURNAttributes::staleNonce);
  }
  if (!TURNAuth::verifyMessageIntegrity(raw, key_, acceptFingerprint_)) {
    logLine(debugLog, FMT_COMPILE("auth: MI verify FAILED → 401"));
    return challenge(TURNAttributes::unauthorized);
  }
  logLine(debugLog, FMT_COMPILE("auth: OK (method=0x{:03x})"), message.method);
  return std::nullopt;
}

TURNMessage RequestGate::make401Challenge(const TransactionID& txID, std::uint16_t method,
                                          std::uint32_t now,
                                          const TURNAttributes::ErrorCode& error) {
  std::string nonce;
  try {
    nonce = TURNAuth::makeNonce();
  } catch (const TURNAuthError&) {
    nonce = fallbackNonce;
  }
  issueNonce(nonce, now);
  TURNMessage answer(method, TURNClass::errorResponse, txID);
  answer.append(TURNAttr::errorCode, TURNAttributes::encodeErrorCode(error));
  answer.append(TURNAttr::realm, bytesOf(realm_));
  answer.append(TURNAttr::nonce, bytesOf(nonce));
  return answer;
}

}  // namespace zk
