// What the server does with a datagram from a client, on its serial queue.

#include "ZelkorTURN/TURNServer.h"

namespace zk {
namespace {

constexpr std::size_t channelHeaderSize = 4;

const char* nameOf(TURNClass klass) {
  switch (klass) {
    case TURNClass::request:
      return "request";
    case TURNClass::indication:
      return "indication";
    case TURNClass::successResponse:
      return "successResponse";
    case TURNClass::errorResponse:
      break;
  }
  return "errorResponse";
}

void logAnswer(const LogCallback& debugLog, const TURNMessage& answer) {
  if (!debugLog) {
    return;
  }
  std::string error;
  if (answer.klass == TURNClass::errorResponse) {
    const auto value = answer.first(TURNAttr::errorCode);
    if (const auto code = value ? TURNAttributes::decodeErrorCode(*value) : std::nullopt) {
      error = fmt::format(" err={}", *code);
    }
  }
  logLine(debugLog, FMT_COMPILE("tx method=0x{:03x} class={}{}{}"), answer.method,
          nameOf(answer.klass), error,
          answer.first(TURNAttr::xorRelayedAddress) ? " [has XOR-RELAYED-ADDRESS]" : "");
}

}  // namespace

void TURNServer::dispatchAll(std::span<const ClientDatagram> burst) {
  for (const ClientDatagram& datagram : burst) {
    dispatch(datagram.payload, datagram.client);
  }
  sendGathered();
}

void TURNServer::dispatch(ByteView datagram, const FiveTuple& client) {
  switch (datagram[0] >> 6) {
    case 0b00:
      handleSTUN(datagram, client);
      break;
    case 0b01:
      handleChannelData(datagram, client);
      break;
    default:
      break;  // not for this protocol; the receive thread has logged it
  }
}

void TURNServer::handleSTUN(ByteView datagram, const FiveTuple& client) {
  auto message = TURNMessage::decode(datagram);
  if (!message) {
    logLine(debugLog, FMT_COMPILE("stun: decode FAILED for {}B datagram from {}:{}"),
            datagram.size(), client.clientIP, client.clientPort);
    return;
  }
  logLine(debugLog, FMT_COMPILE("stun method=0x{:03x} class={} from {}:{}"), message->method,
          nameOf(message->klass), client.clientIP, client.clientPort);
  if (message->method == TURNMethod::send && message->klass == TURNClass::indication) {
    handleSendIndication(std::move(*message), client);
    return;
  }

  currentAllocatingClient_ = client;
  const auto answers = allocationTable_->handle(*message, client, datagram, credentials_, now());
  currentAllocatingClient_.reset();

  bool allocated = false;
  for (const TURNMessage& answer : answers) {
    logAnswer(debugLog, answer);
    sendToClient(answer.encode(), client);
    allocated = allocated || (answer.method == TURNMethod::allocate &&
                              answer.klass == TURNClass::successResponse);
  }
  releaseUnusedRelays(client, allocated);
}

void TURNServer::handleSendIndication(TURNMessage message, const FiveTuple& client) {
  const auto peerValue = message.first(TURNAttr::xorPeerAddress);
  auto peer = peerValue ? TURNAttributes::decodeXorAddress(*peerValue) : std::nullopt;
  const auto payload = message.first(TURNAttr::data);
  if (!peer || !payload || routeOf(client).relay == nullptr) {
    return;
  }
  gathered_.push_back({*payload, std::move(peer->ip), peer->port});
  gatheredMessages_.push_back(std::move(message));
}

// ChannelData: RFC 5766 section 11.4.
void TURNServer::handleChannelData(ByteView datagram, const FiveTuple& client) {
  if (datagram.size() < channelHeaderSize) {
    return;
  }
  const std::uint16_t number = readUInt16(datagram, 0);
  const std::size_t length = readUInt16(datagram, 2);
  if (datagram.size() < channelHeaderSize + length) {
    return;
  }
  const Allocation* const allocation = routeOf(client).allocation;
  if (allocation == nullptr) {
    return;
  }
  // No other number than 0x4000 to 0x7FFF ever gets into the map.
  const auto channel = allocation->channels.find(number);
  if (channel != allocation->channels.end()) {
    const auto& [ip, port] = channel->second;
    gathered_.push_back({datagram.subspan(channelHeaderSize, length), ip, port});
  }
}

// Looked up once for what a burst has from one client in a row: data changes nothing in the tables.
const TURNServer::Route& TURNServer::routeOf(const FiveTuple& client) {
  if (!route_ || route_->client != client) {
    sendGathered();
    const Allocation* const allocation = allocationTable_->allocation(client);
    const auto relay = relayMap_.find(client);
    const bool leadsOn =
        allocation != nullptr && !allocation->isExpired(now()) && relay != relayMap_.end();
    route_ = leadsOn ? Route{client, allocation, relay->second.get()} : Route{client};
  }
  return *route_;
}

void TURNServer::sendGathered() {
  if (!gathered_.empty()) {
    try {
      route_->relay->sendAll(gathered_);
    } catch (const std::exception&) {
      // The relay has logged it, and a datagram may be lost.
    }
  }
  route_.reset();
  gathered_.clear();
  gatheredMessages_.clear();
}

}  // namespace zk
