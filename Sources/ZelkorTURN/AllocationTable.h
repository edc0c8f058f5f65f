#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <variant>

#include "ZelkorTURN/Allocation.h"
#include "ZelkorTURN/RequestGate.h"

namespace zk {

/// An Allocate that waits for its relay.
struct PendingAllocate {
  Endpoint client;
  TransactionID txID{};
};

/// The state machine of the TURN server (RFC 5766): what becomes of a client's allocation, and the
/// answer to every STUN message. The allocation is the client's record's; what is decided about it
/// is decided here. It touches neither sockets nor clocks and calls nobody: `now` is the server
/// clock in whole seconds. One thread.
class AllocationTable {
 public:
  static constexpr std::uint32_t defaultLifetime = 600;  // seconds
  static constexpr std::uint32_t maxLifetime = 3600;     // seconds
  /// For so long a failed Allocate is remembered and its retransmissions get the same answer
  /// (RFC 5389 section 7.2.1), in seconds; and so many of them at most, the oldest go.
  static constexpr std::uint32_t failureMemory = 40;
  static constexpr std::size_t maxFailures = 4096;

  /// See RequestGate.
  AllocationTable(const Credentials& credentials, std::string realm, bool acceptFingerprint = false)
      : gate_(credentials, std::move(realm), acceptFingerprint) {}

  /// Where diagnostics go.
  void setDebugLog(const LogCallback& log);

  /// Gives back what nonces and failures that are long past take.
  void prune(std::uint32_t now);

  /// An answer, to be sent to the client; after one that `ends` the allocation, there is none.
  struct Answer {
    TURNMessage message;
    bool ends = false;
  };
  /// The answer to a message from a client that has `held`, or nothing; or, for an Allocate that
  /// wants a relay, what conclude() takes once there is one or none. The client's messages must
  /// wait meanwhile. Every message is authenticated whatever its class; `rawRequestBytes` is the
  /// datagram as received. Nothing is thrown: failures are answers.
  std::variant<Answer, PendingAllocate> handle(const TURNMessageView& message, const Endpoint& from,
                                               Allocation* held, ByteView rawRequestBytes,
                                               std::uint32_t now);

  /// The answer to an Allocate whose relay is open at `relayed`: `created` is its allocation now.
  TURNMessage conclude(const PendingAllocate& pending, const Endpoint& relayed, Allocation& created,
                       std::uint32_t now) const;
  /// The answer to one whose relay could not be opened.
  TURNMessage concludeFailed(const PendingAllocate& pending, std::uint32_t now);

 private:
  struct Failure {
    Endpoint client;
    TransactionID txID;
    std::uint32_t until;
  };

  std::variant<Answer, PendingAllocate> handleAllocate(const TURNMessageView& request,
                                                       const Endpoint& client,
                                                       const Allocation* held, std::uint32_t now);
  Answer handleRefresh(const TURNMessageView& request, Allocation* held, std::uint32_t now) const;
  Answer handleCreatePermission(const TURNMessageView& request, Allocation& held) const;
  Answer handleChannelBind(const TURNMessageView& request, Allocation& held) const;
  TURNMessage granted(const PendingAllocate& allocate, const Allocation& allocation) const;
  bool hasFailed(const Endpoint& client, const TransactionID& txID, std::uint32_t now) const;

  TURNMessage sign(TURNMessage answer) const;
  Answer success(const TURNMessageView& request) const;
  Answer failure(const TURNMessageView& request, const TURNAttributes::ErrorCode& error) const;
  TURNMessage failure(std::uint16_t method, const TransactionID& txID,
                      const TURNAttributes::ErrorCode& error) const;
  static std::array<std::uint8_t, 4> encodedUInt32(std::uint32_t value);

  LogCallback debugLog_;
  RequestGate gate_;
  std::deque<Failure> failures_;  // oldest first
};

}  // namespace zk
