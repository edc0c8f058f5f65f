#include "ZelkorTURN/Allocation.h"

#include <algorithm>

namespace zk {
namespace {

using TURNAttributes::ErrorCode;

// What goes out when the random source fails. It is in the book like any other nonce.
constexpr std::string_view fallbackNonce = "00000000000000000000000000000000";

constexpr std::uint16_t lowestChannel = 0x4000;
constexpr std::uint16_t highestChannel = 0x7FFF;

TURNMessage answerTo(const TURNMessage& request, TURNClass klass) {
  constexpr std::size_t roomForAnyAnswer = 128;
  return {request.method, klass, request.txID, roomForAnyAnswer};
}

std::vector<TURNMessage> signedWith(ByteView key, TURNMessage answer) {
  TURNAuth::appendMessageIntegrity(answer, key);
  std::vector<TURNMessage> answers;
  answers.push_back(std::move(answer));
  return answers;
}

std::vector<TURNMessage> success(const TURNMessage& request, ByteView key) {
  return signedWith(key, answerTo(request, TURNClass::successResponse));
}

std::vector<TURNMessage> failure(const TURNMessage& request, ByteView key, const ErrorCode& error) {
  TURNMessage answer = answerTo(request, TURNClass::errorResponse);
  answer.append(TURNAttr::errorCode, TURNAttributes::encodeErrorCode(error));
  return signedWith(key, std::move(answer));
}

}  // namespace

AllocationTable::AllocationTable(std::shared_ptr<TURNRelayProvider> relayProvider,
                                 std::string realm)
    : realm_(std::move(realm)), relayProvider_(std::move(relayProvider)) {}

const Allocation* AllocationTable::allocation(const FiveTuple& forClient) const {
  const auto found = allocations_.find(forClient);
  return found == allocations_.end() ? nullptr : &found->second;
}

std::unordered_set<FiveTuple> AllocationTable::sweepExpired(std::uint32_t now) {
  std::unordered_set<FiveTuple> removed;
  std::erase_if(allocations_, [&](const auto& entry) {
    const bool isExpired = entry.second.isExpired(now);
    if (isExpired) {
      removed.insert(entry.first);
    }
    return isExpired;
  });
  return removed;
}

// ---- The gate: who may ask at all -------------------------------------------------------------

std::vector<TURNMessage> AllocationTable::handle(const TURNMessage& message, const FiveTuple& from,
                                                 ByteView rawRequestBytes,
                                                 const Credentials& credentials,
                                                 std::uint32_t now) {
  const auto challenge = [&](const ErrorCode& error) {
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

  const Key key =
      TURNAuth::longTermKey(credentials.username, credentials.realm, credentials.password);
  if (!TURNAuth::verifyMessageIntegrity(rawRequestBytes, key)) {
    logLine(debugLog, FMT_COMPILE("auth: MI verify FAILED → 401"));
    return challenge(TURNAttributes::unauthorized);
  }
  logLine(debugLog, FMT_COMPILE("auth: OK (method=0x{:03x})"), message.method);
  switch (message.method) {
    case TURNMethod::allocate:
      return handleAllocate(message, from, key, now);
    case TURNMethod::refresh:
      return handleRefresh(message, from, key, now);
    case TURNMethod::createPermission:
      return handleCreatePermission(message, from, key, now);
    case TURNMethod::channelBind:
      return handleChannelBind(message, from, key, now);
    default:
      return failure(message, key, TURNAttributes::badRequest);
  }
}

std::vector<TURNMessage> AllocationTable::make401Challenge(const TransactionID& txID,
                                                           std::uint16_t method, std::uint32_t now,
                                                           const ErrorCode& error) {
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
  Answers answers;
  answers.push_back(std::move(answer));
  return answers;
}

// ---- Allocate and Refresh (RFC 5766 sections 6 and 7) -----------------------------------------

std::vector<TURNMessage> AllocationTable::handleAllocate(const TURNMessage& request,
                                                         const FiveTuple& client, const Key& key,
                                                         std::uint32_t now) {
  const auto granted = [&](const std::string& relayIP, std::uint16_t relayPort) {
    const auto relayed = TURNAttributes::encodeXorAddress(relayIP, relayPort);
    const auto mapped = TURNAttributes::encodeXorAddress(client.clientIP, client.clientPort);
    if (!relayed || !mapped) {
      return failure(request, key, TURNAttributes::serverError);
    }
    TURNMessage answer = answerTo(request, TURNClass::successResponse);
    answer.append(TURNAttr::xorRelayedAddress, *relayed);
    answer.append(TURNAttr::xorMappedAddress, *mapped);
    answer.append(TURNAttr::lifetime, encodedUInt32(defaultLifetime));
    return signedWith(key, std::move(answer));
  };

  if (const Allocation* const existing = allocation(client)) {
    if (existing->creatingTxID != request.txID) {
      return failure(request, key, TURNAttributes::allocationMismatch);
    }
    logLine(debugLog, FMT_COMPILE("allocate retransmit (same txID) → resend success"));
    return granted(existing->relayIP, existing->relayPort);
  }

  const auto transport = request.first(TURNAttr::requestedTransport);
  if (!transport || !TURNAttributes::isUDPTransport(*transport)) {
    return failure(request, key, TURNAttributes::unsupportedTransport);
  }

  RelayedAddress relayed;
  try {
    relayed = relayProvider_->allocateRelay();
  } catch (const std::exception&) {
    return failure(request, key, TURNAttributes::serverError);
  }
  if (!TURNAttributes::encodeXorAddress(relayed.ip, relayed.port)) {  // nothing to tell the client
    return failure(request, key, TURNAttributes::serverError);
  }
  Allocation& created = allocations_[client];
  created.relayIP = relayed.ip;
  created.relayPort = relayed.port;
  created.lifetimeExpiry = now + defaultLifetime;
  created.creatingTxID = request.txID;
  return granted(created.relayIP, created.relayPort);
}

std::vector<TURNMessage> AllocationTable::handleRefresh(const TURNMessage& request,
                                                        const FiveTuple& client, const Key& key,
                                                        std::uint32_t now) {
  const auto found = allocations_.find(client);
  if (found == allocations_.end()) {
    return failure(request, key, TURNAttributes::allocationMismatch);
  }
  std::uint32_t lifetime = defaultLifetime;
  if (const auto value = request.first(TURNAttr::lifetime)) {
    lifetime = TURNAttributes::decodeLifetime(*value).value_or(defaultLifetime);
  }
  lifetime = std::min(lifetime, largestLifetime);
  if (lifetime == 0) {
    allocations_.erase(found);
  } else {
    found->second.lifetimeExpiry = now + lifetime;
  }
  TURNMessage answer = answerTo(request, TURNClass::successResponse);
  answer.append(TURNAttr::lifetime, encodedUInt32(lifetime));
  return signedWith(key, std::move(answer));
}

std::array<std::uint8_t, 4> AllocationTable::encodedUInt32(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
          static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

// ---- CreatePermission and ChannelBind (RFC 5766 sections 9 and 11) ----------------------------

Allocation* AllocationTable::usableAllocation(const FiveTuple& client, std::uint32_t now) {
  const auto found = allocations_.find(client);
  return found == allocations_.end() || found->second.isExpired(now) ? nullptr : &found->second;
}

std::vector<TURNMessage> AllocationTable::handleCreatePermission(const TURNMessage& request,
                                                                 const FiveTuple& client,
                                                                 const Key& key,
                                                                 std::uint32_t now) {
  Allocation* const allocation = usableAllocation(client, now);
  if (allocation == nullptr) {
    return failure(request, key, TURNAttributes::allocationMismatch);
  }
  for (const TURNAttribute attribute : request.attributes()) {
    if (attribute.type == TURNAttr::xorPeerAddress) {
      if (auto peer = TURNAttributes::decodeXorAddress(attribute.value)) {
        allocation->permissions.insert(std::move(peer->ip));
      }
    }
  }
  return success(request, key);
}

std::vector<TURNMessage> AllocationTable::handleChannelBind(const TURNMessage& request,
                                                            const FiveTuple& client, const Key& key,
                                                            std::uint32_t now) {
  Allocation* const allocation = usableAllocation(client, now);
  if (allocation == nullptr) {
    return failure(request, key, TURNAttributes::allocationMismatch);
  }
  const auto numberValue = request.first(TURNAttr::channelNumber);
  const auto number =
      numberValue ? TURNAttributes::decodeChannelNumber(*numberValue) : std::nullopt;
  if (!number) {
    return failure(request, key, TURNAttributes::missingChannelNumber);
  }
  if (*number < lowestChannel || *number > highestChannel) {
    return failure(request, key, TURNAttributes::channelOutOfRange);
  }
  const auto peerValue = request.first(TURNAttr::xorPeerAddress);
  auto peer = peerValue ? TURNAttributes::decodeXorAddress(*peerValue) : std::nullopt;
  if (!peer) {
    return failure(request, key, TURNAttributes::missingPeerAddress);
  }
  allocation->permissions.insert(peer->ip);
  allocation->channels[*number] = std::move(*peer);
  return success(request, key);
}

}  // namespace zk
