#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Platform/LogCallback.h"
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
  std::string relayIP;
  std::uint16_t relayPort = 0;
  std::uint32_t lifetimeExpiry = 0;  // server clock; expired exactly when it is below now
  TransactionID creatingTxID{};
  std::set<std::string> permissions;                          // peer IPv4 addresses
  std::map<std::uint16_t, TURNAttributes::Address> channels;  // by channel number

  bool isExpired(std::uint32_t now) const { return lifetimeExpiry < now; }
};

/// The provider has no relay for the client.
class AllocationError : public std::exception {
 public:
  static AllocationError relayCapacityExceeded() { return {}; }
  const char* what() const noexcept override { return "relayCapacityExceeded"; }
};

/// The one long-term credential that clients prove to know.
struct Credentials {
  std::string username;
  std::string realm;
  std::string password;
};

/// The state machine of the TURN server (RFC 5766): who has which allocation, which nonces are out,
/// and the answer to every STUN message. It touches neither sockets nor clocks: relays come from
/// the provider, and `now` is the server clock in whole seconds.
///
/// One serial context: the server calls it on its serial queue only, and is called back there.
class AllocationTable {
 public:
  static constexpr std::uint32_t defaultLifetime = 600;   // seconds
  static constexpr std::uint32_t largestLifetime = 3600;  // seconds

  /// `relayProvider` is kept; `realm` goes into every challenge.
  AllocationTable(std::shared_ptr<TURNRelayProvider> relayProvider, std::string realm);

  /// Where diagnostics go.
  LogCallback debugLog;

  /// The client's allocation, expired or not; nullptr when there is none. Good until the next call
  /// of an operation that is not const.
  const Allocation* allocation(const FiveTuple& forClient) const;

  /// Removes every allocation that is expired at `now`, and tells whose, so that their owner can
  /// close the relays.
  std::unordered_set<FiveTuple> sweepExpired(std::uint32_t now);

  /// The answers to a message, to be sent to the client in this order. Every message is
  /// authenticated (RFC 5389 section 10.2.2) whatever its class; `rawRequestBytes` is the datagram
  /// as received, which MESSAGE-INTEGRITY covers. Nothing is thrown: failures are answers.
  std::vector<TURNMessage> handle(const TURNMessage& message, const FiveTuple& from,
                                  ByteView rawRequestBytes, const Credentials& credentials,
                                  std::uint32_t now);

 private:
  using Key = TURNAuth::LongTermKey;
  using Answers = std::vector<TURNMessage>;

  Answers make401Challenge(const TransactionID& txID, std::uint16_t method, std::uint32_t now,
                           const TURNAttributes::ErrorCode& error);
  void issueNonce(std::string_view nonce, std::uint32_t now) { issuedNonces_.issue(nonce, now); }

  Answers handleAllocate(const TURNMessage& request, const FiveTuple& client, const Key& key,
                         std::uint32_t now);
  Answers handleRefresh(const TURNMessage& request, const FiveTuple& client, const Key& key,
                        std::uint32_t now);
  Answers handleCreatePermission(const TURNMessage& request, const FiveTuple& client,
                                 const Key& key, std::uint32_t now);
  Answers handleChannelBind(const TURNMessage& request, const FiveTuple& client, const Key& key,
                            std::uint32_t now);
  Allocation* usableAllocation(const FiveTuple& client, std::uint32_t now);

  static std::array<std::uint8_t, 4> encodedUInt32(std::uint32_t value);

  std::unordered_map<FiveTuple, Allocation> allocations_;
  NonceBook issuedNonces_;
  const std::string realm_;
  const std::shared_ptr<TURNRelayProvider> relayProvider_;
};

}  // namespace zk
