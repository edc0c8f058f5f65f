#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <variant>

#include "Base/LogLine.h"
#include "ZelkorTURN/NonceBook.h"
#include "ZelkorTURN/RelayInterfaces.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNAuth.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk {

enum class TransportProtocol : std::uint8_t { udp, tcp };

/// The key of a client. Only UDP clients exist.
struct FiveTuple {
  std::string clientIP;  // dotted quad
  std::uint16_t clientPort = 0;
  TransportProtocol transport = TransportProtocol::udp;

  bool operator==(const FiveTuple&) const = default;
};

}  // namespace zk

template <>
struct std::hash<zk::FiveTuple> {
  std::size_t operator()(const zk::FiveTuple& client) const noexcept {
    return std::hash<std::string>{}(client.clientIP) * 31 +
           (static_cast<std::size_t>(client.clientPort) << 1 |
            static_cast<std::size_t>(client.transport));
  }
};

namespace zk {

/// One client's allocation. Permissions and channels live as long as it does.
struct Allocation {
  /// More peers are acknowledged and not noted. Nothing depends on the set, and a client that has
  /// so many is not one that makes calls.
  static constexpr std::size_t maxPermissions = 4096;

  std::string relayIP;
  std::uint16_t relayPort = 0;
  std::uint32_t lifetimeExpiry = 0;  // server clock; expired exactly when it is below now
  TransactionID creatingTxID{};
  std::set<std::string> permissions;                          // peer IPv4 addresses
  std::map<std::uint16_t, TURNAttributes::Address> channels;  // by channel number

  bool isExpired(std::uint32_t now) const { return lifetimeExpiry < now; }
  void permit(const std::string& peerIP);
  /// Binds the channel to the peer, in place of what it was bound to.
  void bind(std::uint16_t channel, TURNAttributes::Address peer);
  /// The lowest channel that is bound to a peer; absent when none is.
  std::optional<std::uint16_t> channelOf(std::string_view peerIP, std::uint16_t peerPort) const;

 private:
  // The other way round, for every datagram from a peer: channels by address and port in one.
  std::unordered_map<std::uint64_t, std::set<std::uint16_t>> channelsOfPeer_;
};

/// The one long-term credential that clients prove to know.
struct Credentials {
  std::string username;
  std::string realm;
  std::string password;
};

/// An Allocate that waits for its relay.
struct PendingAllocate {
  FiveTuple client;
  TransactionID txID{};
  TURNAuth::LongTermKey key{};  // the answer is signed with it
};

/// The state machine of the TURN server (RFC 5766): who has which allocation, which nonces are out,
/// and the answer to every STUN message. It touches neither sockets nor clocks and calls nobody:
/// `now` is the server clock in whole seconds. One thread.
class AllocationTable {
 public:
  static constexpr std::uint32_t defaultLifetime = 600;  // seconds
  static constexpr std::uint32_t maxLifetime = 3600;     // seconds
  /// For so long a failed Allocate is remembered and its retransmissions get the same answer
  /// (RFC 5389 section 7.2.1), in seconds; and so many of them at most, the oldest go.
  static constexpr std::uint32_t failureMemory = 40;
  static constexpr std::size_t maxFailures = 4096;

  /// `realm` goes into every challenge. `acceptFingerprint`: see verifyMessageIntegrity().
  explicit AllocationTable(std::string realm, bool acceptFingerprint = false);

  /// Where diagnostics go.
  LogCallback debugLog;

  /// The client's allocation, expired or not; nullptr when there is none. Good until the next call
  /// of an operation that is not const.
  const Allocation* allocation(const FiveTuple& forClient) const;

  /// Removes every allocation that is expired at `now`, and tells whose, so that their owner can
  /// close the relays.
  std::unordered_set<FiveTuple> sweepExpired(std::uint32_t now);
  /// Removes a client's allocation, whose relay is no more.
  void remove(const FiveTuple& client) { allocations_.erase(client); }
  /// Gives back what nonces and failures that are long past take.
  void prune(std::uint32_t now);

  /// The answer to a message, to be sent to the client; or, for an Allocate that wants a relay,
  /// what conclude() takes once there is one or none. The client's messages must wait meanwhile.
  /// Every message is authenticated (RFC 5389 section 10.2.2) whatever its class; `rawRequestBytes`
  /// is the datagram as received, which MESSAGE-INTEGRITY covers. Nothing is thrown: failures are
  /// answers.
  std::variant<TURNMessage, PendingAllocate> handle(const TURNMessage& message,
                                                    const FiveTuple& from, ByteView rawRequestBytes,
                                                    const Credentials& credentials,
                                                    std::uint32_t now);

  /// The answer to an Allocate whose relay is open at `relayed`, or could not be opened.
  TURNMessage conclude(const PendingAllocate& pending, const std::optional<RelayedAddress>& relayed,
                       std::uint32_t now);

 private:
  using Key = TURNAuth::LongTermKey;
  struct Failure {
    FiveTuple client;
    TransactionID txID;
    std::uint32_t until;
  };

  TURNMessage make401Challenge(const TransactionID& txID, std::uint16_t method, std::uint32_t now,
                               const TURNAttributes::ErrorCode& error);
  void issueNonce(std::string_view nonce, std::uint32_t now) { issuedNonces_.issue(nonce, now); }

  std::variant<TURNMessage, PendingAllocate> handleAllocate(const TURNMessage& request,
                                                            const FiveTuple& client, const Key& key,
                                                            std::uint32_t now);
  TURNMessage handleRefresh(const TURNMessage& request, const FiveTuple& client, const Key& key,
                            std::uint32_t now);
  TURNMessage handleCreatePermission(const TURNMessage& request, const FiveTuple& client,
                                     const Key& key, std::uint32_t now);
  TURNMessage handleChannelBind(const TURNMessage& request, const FiveTuple& client, const Key& key,
                                std::uint32_t now);
  Allocation* usableAllocation(const FiveTuple& client, std::uint32_t now);
  static TURNMessage granted(const PendingAllocate& allocate, const Allocation& allocation);
  bool hasFailed(const FiveTuple& client, const TransactionID& txID, std::uint32_t now) const;

  static std::array<std::uint8_t, 4> encodedUInt32(std::uint32_t value);

  std::unordered_map<FiveTuple, Allocation> allocations_;
  NonceBook issuedNonces_;
  std::deque<Failure> failures_;  // oldest first
  const std::string realm_;
  const bool acceptFingerprint_;
};

}  // namespace zk
