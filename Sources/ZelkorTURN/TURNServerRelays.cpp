// How the server opens, keeps and releases one relay per client, and what it does with a datagram
// that a relay received.

#include "Platform/Datagrams.h"
#include "Platform/IPv4.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorTURN/PerClientRelayProxy.h"
#include "ZelkorTURN/SOCKS5Relay.h"
#include "ZelkorTURN/TURNServer.h"

namespace zk {
namespace {

// A pinned attempt may run into a network that leads nowhere; a client must not wait long for it.
constexpr double pinnedConnectTimeout = 3.0;  // seconds

// Expired allocations are kept this long, for a client that comes back late with a Refresh.
constexpr std::uint32_t graceAfterExpiry = 300;  // seconds

// InterfaceScope::modeOverride for as long as this lives, and absent again after.
class ScopeOverride {
 public:
  explicit ScopeOverride(bool viaDefault) { InterfaceScope::modeOverride = viaDefault; }
  ~ScopeOverride() { InterfaceScope::modeOverride.reset(); }
  ScopeOverride(const ScopeOverride&) = delete;
  ScopeOverride& operator=(const ScopeOverride&) = delete;
};

// Opens the relay. An address that no client can be told (the host name of a proxy, say) is a
// failure too.
RelayedAddress open(TURNRelay& relay, bool viaDefault) {
  const ScopeOverride override(viaDefault);
  RelayedAddress address = relay.allocateRelay();
  if (!isDottedQuad(address.ip)) {
    relay.close();
    throw SOCKS5Error::connectionFailed("relayed address is not IPv4: " + address.ip);
  }
  return address;
}

// The channel that the client has bound to a peer.
std::optional<std::uint16_t> channelOf(const Allocation& allocation, const std::string& peerIP,
                                       std::uint16_t peerPort) {
  for (const auto& [number, peer] : allocation.channels) {
    if (peer.port == peerPort && peer.ip == peerIP) {
      return number;
    }
  }
  return std::nullopt;
}

// The header of ChannelData (RFC 5766 section 11.4). UDP needs no padding behind the payload.
std::array<std::uint8_t, 4> channelDataHeader(std::uint16_t channel, ByteView payload) {
  std::array<std::uint8_t, 4> header;
  writeUInt16(&header[0], channel);
  writeUInt16(&header[2], static_cast<std::uint16_t>(payload.size()));
  return header;
}

}  // namespace

RelayedAddress PerClientRelayProxy::allocateRelay() {
  const auto server = server_.lock();
  if (!server) {
    throw AllocationError::relayCapacityExceeded();
  }
  return server->allocateRelayForCurrentClient();
}

RelayedAddress TURNServer::allocateRelayForCurrentClient() {
  if (!currentAllocatingClient_) {
    throw AllocationError::relayCapacityExceeded();
  }
  const FiveTuple client = *currentAllocatingClient_;
  const auto [relay, address] = openRelay(client);
  releaseRelay(client);  // one that this one replaces
  try {
    relay->receive([weak = weak_from_this(), client](std::span<const PeerDatagram> burst) {
      if (const auto server = weak.lock()) {
        server->deliverFromRelay(burst, client);
      }
    });
  } catch (...) {
    relay->close();
    throw;
  }
  relayMap_[client] = relay;
  return address;
}

// Two rungs: pinned to the physical interface, then by the default route.
std::pair<TURNServer::Relay, RelayedAddress> TURNServer::openRelay(const FiveTuple& client) {
  logLine(debugLog, FMT_COMPILE("relay OPEN attempt for {}:{}…"), client.clientIP,
          client.clientPort);
  try {
    Relay relay = relayFactory_->makeRelay(client);
    if (auto* const socks5 = dynamic_cast<SOCKS5Relay*>(relay.get())) {
      socks5->connectTimeout = pinnedConnectTimeout;
    }
    RelayedAddress address = open(*relay, false);
    logLine(debugLog, FMT_COMPILE("relay OPEN ok (en0) ip={} port={}"), address.ip, address.port);
    return {std::move(relay), std::move(address)};
  } catch (const std::exception& error) {
    logLine(debugLog,
            FMT_COMPILE("relay OPEN en0 failed ({}) → retry via-default (full-tunnel VPN)"),
            error.what());
  }
  try {
    Relay relay = relayFactory_->makeRelay(client);
    RelayedAddress address = open(*relay, true);
    logLine(debugLog, FMT_COMPILE("relay OPEN ok (via-default) ip={} port={}"), address.ip,
            address.port);
    return {std::move(relay), std::move(address)};
  } catch (const std::exception& error) {
    logLine(debugLog, FMT_COMPILE("relay OPEN FAILED both rungs: {}"), error.what());
    throw;
  }
}

// After every handled message. A relay costs a descriptor or two, a thread and an association at
// the proxy; none of them outlives its use.
void TURNServer::releaseUnusedRelays(const FiveTuple& client, bool allocated) {
  if (allocationTable_->allocation(client) == nullptr) {
    releaseRelay(client);
  }
  const std::uint32_t time = now();
  if (allocated && time > graceAfterExpiry) {
    for (const FiveTuple& expired : allocationTable_->sweepExpired(time - graceAfterExpiry)) {
      releaseRelay(expired);
    }
  }
}

void TURNServer::releaseRelay(const FiveTuple& client) {
  if (const auto entry = relayMap_.extract(client)) {
    entry.mapped()->close();
  }
}

void TURNServer::deliverFromRelayOnQueue(std::span<const PeerDatagram> burst,
                                         const FiveTuple& client) {
  const Allocation* const allocation = allocationTable_->allocation(client);
  const bool isAlive = allocation != nullptr && !allocation->isExpired(now());
  const sockaddr_in clientAddress = socketAddress(client.clientIP, client.clientPort);
  DatagramSender sender;
  std::array<Bytes, mostPerCall> indications;
  for (const PeerDatagram& datagram : burst) {
    const auto& [payload, peerIP, peerPort] = datagram;
    logLine(debugLog, FMT_COMPILE("relay rx {}B from {}:{} → client {}:{}"), payload.size(), peerIP,
            peerPort, client.clientIP, client.clientPort);
    if (!isAlive) {
      logLine(debugLog, FMT_COMPILE("relay rx DROP: no allocation or expired for {}:{}"),
              client.clientIP, client.clientPort);
      continue;
    }
    if (sender.isFull()) {
      sender.send(serverFD_);
    }
    if (const auto channel = channelOf(*allocation, peerIP, peerPort)) {
      sender.add(channelDataHeader(*channel, payload), payload, clientAddress);
    } else if (auto indication = dataIndication(datagram)) {
      Bytes& kept = indications[sender.size()] = std::move(*indication);
      sender.add({}, kept, clientAddress);
    } else {
      logLine(debugLog, FMT_COMPILE("relay rx DROP: peer address is not IPv4 for {}:{}"),
              client.clientIP, client.clientPort);
    }
  }
  sender.send(serverFD_);  // into the void once it is -1
}

// A Data indication (RFC 5766 section 10.4). Absent when the peer has no IPv4 address.
std::optional<Bytes> TURNServer::dataIndication(const PeerDatagram& datagram) {
  const auto peerAddress = TURNAttributes::encodeXorAddress(datagram.peerIP, datagram.peerPort);
  if (!peerAddress || !isDottedQuad(datagram.peerIP)) {
    return std::nullopt;
  }
  TransactionID txID{};
  transactionIDs_.fill(txID);
  const std::size_t attributeRoom =
      2 * TURNMessage::attributeHeaderSize + peerAddress->size() + datagram.payload.size() + 3;
  TURNMessage indication(TURNMethod::dataMsg, TURNClass::indication, txID, attributeRoom);
  indication.append(TURNAttr::xorPeerAddress, *peerAddress);
  indication.append(TURNAttr::data, datagram.payload);
  return indication.encode();
}

}  // namespace zk
