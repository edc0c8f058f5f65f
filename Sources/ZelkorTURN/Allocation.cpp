#include "ZelkorTURN/Allocation.h"

#include <algorithm>

#include "Base/IPv4.h"

namespace zk {
namespace {

using TURNAttributes::ErrorCode;

// What goes out when the random source fails. It is in the book like any other nonce.
constexpr std::string_view fallbackNonce = "00000000000000000000000000000000";

constexpr std::uint16_t lowestChannel = 0x4000;
constexpr std::uint16_t highestChannel = 0x7FFF;

TURNMessage answerTo(std::uint16_t method, TURNClass klass, const TransactionID& txID) {
  constexpr std::size_t roomForAnyAnswer = 128;
  return {method, klass, txID, roomForAnyAnswer};
}

TURNMessage signedWith(ByteView key, TURNMessage answer) {
  TURNAuth::appendMessageIntegrity(answer, key);
  return answer;
}

TURNMessage success(const TURNMessage& request, ByteView key) {
  return signedWith(key, answerTo(request.method, TURNClass::successResponse, request.txID));
}

TURNMessage failure(std::uint16_t method, const TransactionID& txID, ByteView key,
                    const ErrorCode& error) {
  TURNMessage answer = answerTo(method, TURNClass::errorResponse, txID);
  answer.append(TURNAttr::errorCode, TURNAttributes::encodeErrorCode(error));
  return signedWith(key, std::move(answer));
}

TURNMessage failure(const TURNMessage& request, ByteView key, const ErrorCode& error) {
  return failure(request.method, request.txID, key, error);
}

// Address and port of a peer in one number; absent for what no channel can be bound to.
std::optional<std::uint64_t> peerNumber(std::string_view ip, std::uint16_t port) {
  const auto octets = parseDottedQuad(ip);
  if (!octets) {
    return std::nullopt;
  }
  std::uint64_t number = port;
  for (const std::uint8_t octet : *octets) {
    number = number << 8 | octet;
  }
  return number;
}

}  // namespace

// ---- Permissions and channels ------------------------------------------------------------------

void Allocation::permit(const std::string& peerIP) {
  if (permissions.size() < maxPermissions) {
    permissions.insert(peerIP);
  }
}

void Allocation::bind(std::uint16_t channel, TURNAttributes::Address peer) {
  const auto forget = [&](const TURNAttributes::Address& former) {
    const auto bound = channelsOfPeer_.find(*peerNumber(former.ip, former.port));
    bound->second.erase(channel);
    if (bound->second.empty()) {
      channelsOfPeer_.erase(bound);
    }
  };
  const auto number = peerNumber(peer.ip, peer.port);
  if (!number) {
    return;
  }
  const auto [entry, isNew] = channels.try_emplace(channel, peer);
  if (!isNew) {
    forget(entry->second);
    entry->second = std::move(peer);
  }
  channelsOfPeer_[*number].insert(channel);
}

std::optional<std::uint16_t> Allocation::channelOf(std::string_view peerIP,
                                                   std::uint16_t peerPort) const {
  const auto number = peerNumber(peerIP, peerPort);
  const auto bound = number ? channelsOfPeer_.find(*number) : channelsOfPeer_.end();
  return bound == channelsOfPeer_.end() ? std::nullopt : std::optional(*bound->second.begin());
}

// ---- Who has an allocation ---------------------------------------------------------------------

AllocationTable::AllocationTable(std::string realm, bool acceptFingerprint)
    : realm_(std::move(realm)), acceptFingerprint_(acceptFingerprint) {}

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

void AllocationTable::prune(std::uint32_t now) {
  issuedNonces_.prune(now);
  while (!failures_.empty() && failures_.front().until < now) {
    failures_.pop_front();
  }
}

// ---- The gate: who may ask at all -------------------------------------------------------------

std::variant<TURNMessage, PendingAllocate> AllocationTable::handle(const TURNMessage& message,
                                                                   const FiveTuple& from,
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
  if (!TURNAuth::verifyMessageIntegrity(rawRequestBytes, key, acceptFingerprint_)) {
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

TURNMessage AllocationTable::make401Challenge(const TransactionID& txID, std::uint16_t method,
                                              std::uint32_t now, const ErrorCode& error) {
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

// ---- Allocate and Refresh (RFC 5766 sections 6 and 7) -----------------------------------------

std::variant<TURNMessage, PendingAllocate> AllocationTable::handleAllocate(
    const TURNMessage& request, const FiveTuple& client, const Key& key, std::uint32_t now) {
  if (const Allocation* const existing = allocation(client)) {
    if (existing->creatingTxID != request.txID) {
      return failure(request, key, TURNAttributes::allocationMismatch);
    }
    logLine(debugLog, FMT_COMPILE("allocate retransmit (same txID) → resend success"));
    return granted({client, request.txID, key}, *existing);
  }
  const auto transport = request.first(TURNAttr::requestedTransport);
  if (!transport || !TURNAttributes::isUDPTransport(*transport)) {
    return failure(request, key, TURNAttributes::unsupportedTransport);
  }
  if (hasFailed(client, request.txID, now)) {
    return failure(request, key, TURNAttributes::serverError);
  }
  return PendingAllocate{client, request.txID, key};
}

TURNMessage AllocationTable::conclude(const PendingAllocate& pending,
                                      const std::optional<RelayedAddress>& relayed,
                                      std::uint32_t now) {
  if (!relayed) {
    failures_.push_back({pending.client, pending.txID, now + failureMemory});
    if (failures_.size() > maxFailures) {
      failures_.pop_front();
    }
    return failure(TURNMethod::allocate, pending.txID, pending.key, TURNAttributes::serverError);
  }
  Allocation& created = allocations_[pending.client];
  created.relayIP = relayed->ip;
  created.relayPort = relayed->port;
  created.lifetimeExpiry = now + defaultLifetime;
  created.creatingTxID = pending.txID;
  return granted(pending, created);
}

// Both addresses are IPv4: the client's by its socket, the relay's because an opening that finds
// another has failed.
TURNMessage AllocationTable::granted(const PendingAllocate& allocate,
                                     const Allocation& allocation) {
  TURNMessage answer = answerTo(TURNMethod::allocate, TURNClass::successResponse, allocate.txID);
  answer.append(TURNAttr::xorRelayedAddress,
                TURNAttributes::encodeXorAddress(allocation.relayIP, allocation.relayPort).value());
  answer.append(
      TURNAttr::xorMappedAddress,
      TURNAttributes::encodeXorAddress(allocate.client.clientIP, allocate.client.clientPort)
          .value());
  answer.append(TURNAttr::lifetime, encodedUInt32(defaultLifetime));
  return signedWith(allocate.key, std::move(answer));
}

bool AllocationTable::hasFailed(const FiveTuple& client, const TransactionID& txID,
                                std::uint32_t now) const {
  return std::any_of(failures_.begin(), failures_.end(), [&](const Failure& failed) {
    return failed.until >= now && failed.txID == txID && failed.client == client;
  });
}

TURNMessage AllocationTable::handleRefresh(const TURNMessage& request, const FiveTuple& client,
                                           const Key& key, std::uint32_t now) {
  const auto found = allocations_.find(client);
  if (found == allocations_.end()) {
    return failure(request, key, TURNAttributes::allocationMismatch);
  }
  std::uint32_t lifetime = defaultLifetime;
  if (const auto value = request.first(TURNAttr::lifetime)) {
    lifetime = TURNAttributes::decodeLifetime(*value).value_or(defaultLifetime);
  }
  lifetime = std::min(lifetime, maxLifetime);
  if (lifetime == 0) {
    allocations_.erase(found);
  } else {
    found->second.lifetimeExpiry = now + lifetime;
  }
  TURNMessage answer = answerTo(request.method, TURNClass::successResponse, request.txID);
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

TURNMessage AllocationTable::handleCreatePermission(const TURNMessage& request,
                                                    const FiveTuple& client, const Key& key,
                                                    std::uint32_t now) {
  Allocation* const allocation = usableAllocation(client, now);
  if (allocation == nullptr) {
    return failure(request, key, TURNAttributes::allocationMismatch);
  }
  for (const TURNAttribute attribute : request.attributes()) {
    if (attribute.type == TURNAttr::xorPeerAddress) {
      if (auto peer = TURNAttributes::decodeXorAddress(attribute.value)) {
        allocation->permit(peer->ip);
      }
    }
  }
  return success(request, key);
}

TURNMessage AllocationTable::handleChannelBind(const TURNMessage& request, const FiveTuple& client,
                                               const Key& key, std::uint32_t now) {
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
  allocation->permit(peer->ip);
  allocation->bind(*number, std::move(*peer));
  return success(request, key);
}

}  // namespace zk
