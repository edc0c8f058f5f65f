#include "ZelkorTURN/AllocationTable.h"

#include <algorithm>

#include "ZelkorTURN/ChannelData.h"

namespace zk {
namespace {

using TURNAttributes::ErrorCode;

TURNMessage answerTo(std::uint16_t method, TURNClass klass, const TransactionID& txID) {
  constexpr std::size_t roomForAnyAnswer = 128;
  return {method, klass, txID, roomForAnyAnswer};
}

// What `decode` reads in the first attribute of that type; absent when there is none.
template <typename Decode>
auto valueOf(const TURNMessageView& message, std::uint16_t type, Decode decode) {
  const auto value = message.first(type);
  return value ? decode(*value) : decltype(decode(*value)){};
}

}  // namespace

void AllocationTable::setDebugLog(const LogCallback& log) {
  debugLog_ = log;
  gate_.debugLog = log;
}

void AllocationTable::prune(std::uint32_t now) {
  gate_.prune(now);
  while (!failures_.empty() && failures_.front().until < now) {
    failures_.pop_front();
  }
}

std::variant<AllocationTable::Answer, PendingAllocate> AllocationTable::handle(
    const TURNMessageView& message, const Endpoint& from, Allocation* held,
    ByteView rawRequestBytes, std::uint32_t now) {
  if (auto refusal = gate_.refusal(message, rawRequestBytes, now)) {
    return Answer{std::move(*refusal)};
  }
  const bool isUsable = held != nullptr && !held->isExpired(now);
  switch (message.method) {
    case TURNMethod::allocate:
      return handleAllocate(message, from, held, now);
    case TURNMethod::refresh:
      return handleRefresh(message, held, now);
    case TURNMethod::createPermission:
      return isUsable ? handleCreatePermission(message, *held)
                      : failure(message, TURNAttributes::allocationMismatch);
    case TURNMethod::channelBind:
      return isUsable ? handleChannelBind(message, *held)
                      : failure(message, TURNAttributes::allocationMismatch);
    default:
      return failure(message, TURNAttributes::badRequest);
  }
}

// ---- Allocate and Refresh (RFC 5766 sections 6 and 7) -----------------------------------------

std::variant<AllocationTable::Answer, PendingAllocate> AllocationTable::handleAllocate(
    const TURNMessageView& request, const Endpoint& client, const Allocation* held,
    std::uint32_t now) {
  if (held != nullptr) {
    if (held->creatingTxID != request.txID) {
      return failure(request, TURNAttributes::allocationMismatch);
    }
    logLine(debugLog_, FMT_COMPILE("allocate retransmit (same txID) → resend success"));
    return Answer{granted({client, request.txID}, *held)};
  }
  if (!valueOf(request, TURNAttr::requestedTransport, TURNAttributes::isUDPTransport)) {
    return failure(request, TURNAttributes::unsupportedTransport);
  }
  if (hasFailed(client, request.txID, now)) {
    return failure(request, TURNAttributes::serverError);
  }
  return PendingAllocate{client, request.txID};
}

TURNMessage AllocationTable::conclude(const PendingAllocate& pending, const Endpoint& relayed,
                                      Allocation& created, std::uint32_t now) const {
  created.relayed = relayed;
  created.lifetimeExpiry = now + defaultLifetime;
  created.creatingTxID = pending.txID;
  return granted(pending, created);
}

TURNMessage AllocationTable::concludeFailed(const PendingAllocate& pending, std::uint32_t now) {
  failures_.push_back({pending.client, pending.txID, now + failureMemory});
  if (failures_.size() > maxFailures) {
    failures_.pop_front();
  }
  return failure(TURNMethod::allocate, pending.txID, TURNAttributes::serverError);
}

TURNMessage AllocationTable::granted(const PendingAllocate& allocate,
                                     const Allocation& allocation) const {
  TURNMessage answer = answerTo(TURNMethod::allocate, TURNClass::successResponse, allocate.txID);
  answer.append(TURNAttr::xorRelayedAddress, TURNAttributes::encodeXorAddress(allocation.relayed));
  answer.append(TURNAttr::xorMappedAddress, TURNAttributes::encodeXorAddress(allocate.client));
  answer.append(TURNAttr::lifetime, encodedUInt32(defaultLifetime));
  return sign(std::move(answer));
}

bool AllocationTable::hasFailed(const Endpoint& client, const TransactionID& txID,
                                std::uint32_t now) const {
  return std::any_of(failures_.begin(), failures_.end(), [&](const Failure& failed) {
    return failed.until >= now && failed.txID == txID && failed.client == client;
  });
}

AllocationTable::Answer AllocationTable::handleRefresh(const TURNMessageView& request,
                                                       Allocation* held, std::uint32_t now) const {
  if (held == nullptr) {
    return failure(request, TURNAttributes::allocationMismatch);
  }
  const auto lifetime =
      std::min(valueOf(request, TURNAttr::lifetime, TURNAttributes::decodeLifetime)
                   .value_or(defaultLifetime),
               maxLifetime);
  held->lifetimeExpiry = now + lifetime;
  TURNMessage answer = answerTo(request.method, TURNClass::successResponse, request.txID);
  answer.append(TURNAttr::lifetime, encodedUInt32(lifetime));
  return {sign(std::move(answer)), lifetime == 0};
}

// ---- CreatePermission and ChannelBind (RFC 5766 sections 9 and 11) ----------------------------

AllocationTable::Answer AllocationTable::handleCreatePermission(const TURNMessageView& request,
                                                                Allocation& held) const {
  for (const TURNAttribute attribute : request.attributes()) {
    if (attribute.type == TURNAttr::xorPeerAddress) {
      if (const auto peer = TURNAttributes::decodeXorAddress(attribute.value)) {
        held.permit(*peer);
      }
    }
  }
  return success(request);
}

AllocationTable::Answer AllocationTable::handleChannelBind(const TURNMessageView& request,
                                                           Allocation& held) const {
  const auto number =
      valueOf(request, TURNAttr::channelNumber, TURNAttributes::decodeChannelNumber);
  if (!number) {
    return failure(request, TURNAttributes::missingChannelNumber);
  }
  if (*number < ChannelData::lowest || *number > ChannelData::highest) {
    return failure(request, TURNAttributes::channelOutOfRange);
  }
  const auto peer = valueOf(request, TURNAttr::xorPeerAddress, TURNAttributes::decodeXorAddress);
  if (!peer) {
    return failure(request, TURNAttributes::missingPeerAddress);
  }
  held.permit(*peer);
  held.bind(*number, *peer);
  return success(request);
}

// ---- Answers -----------------------------------------------------------------------------------

TURNMessage AllocationTable::sign(TURNMessage answer) const {
  TURNAuth::appendMessageIntegrity(answer, gate_.key());
  return answer;
}

AllocationTable::Answer AllocationTable::success(const TURNMessageView& request) const {
  return {sign(answerTo(request.method, TURNClass::successResponse, request.txID))};
}

AllocationTable::Answer AllocationTable::failure(const TURNMessageView& request,
                                                 const ErrorCode& error) const {
  return {failure(request.method, request.txID, error)};
}

TURNMessage AllocationTable::failure(std::uint16_t method, const TransactionID& txID,
                                     const ErrorCode& error) const {
  TURNMessage answer = answerTo(method, TURNClass::errorResponse, txID);
  answer.append(TURNAttr::errorCode, TURNAttributes::encodeErrorCode(error));
  return sign(std::move(answer));
}

std::array<std::uint8_t, 4> AllocationTable::encodedUInt32(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
          static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

}  // namespace zk
