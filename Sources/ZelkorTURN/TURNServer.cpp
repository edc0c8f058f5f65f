// The server on its loop, in the order in which a datagram passes: from a client's socket to its
// relay, the opening of relays, and from a relay back to the client.

#include "ZelkorTURN/TURNServer.h"

#include <chrono>
#include <map>
#include <utility>

#include "Base/IPv4.h"
#include "Platform/Thread.h"

namespace zk {
namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::size_t channelHeaderSize = 4;

// Expired allocations are kept this long, for a client that comes back late with a Refresh.
constexpr std::uint32_t graceAfterExpiry = 300;  // seconds
constexpr std::chrono::seconds sweepInterval{30};

const char* kindOf(std::uint8_t firstByte) {
  switch (firstByte >> 6) {
    case 0b00:
      return "STUN";
    case 0b01:
      return "ChannelData";
    default:
      return "unknown";
  }
}

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

// Asks the system once for each way: mostly all relays have the same.
RouteCheck routeCheck(Interfaces& look) {
  using Way = std::pair<unsigned, in_addr_t>;
  return [&look, known = std::map<Way, RouteAnswer>()](unsigned interface,
                                                       const sockaddr_in& to) mutable {
    const auto [entry, isNew] = known.try_emplace({interface, to.sin_addr.s_addr});
    if (isNew) {
      entry->second = look.askRoute(interface, reinterpret_cast<const sockaddr&>(to));
    }
    return entry->second;
  };
}

// Whether a datagram repeats the Allocate that is being answered already.
bool isRetransmission(ByteView datagram, const PendingAllocate& allocate) {
  const auto message = TURNMessage::decode(datagram);
  return message && message->method == TURNMethod::allocate && message->txID == allocate.txID;
}

// The header of ChannelData (RFC 5766 section 11.4). UDP needs no padding behind the payload.
std::array<std::uint8_t, channelHeaderSize> channelDataHeader(std::uint16_t channel,
                                                              ByteView payload) {
  std::array<std::uint8_t, channelHeaderSize> header;
  writeUInt16(&header[0], channel);
  writeUInt16(&header[2], static_cast<std::uint16_t>(payload.size()));
  return header;
}

}  // namespace

TURNServer::TURNServer(Credentials credentials, std::string realm,
                       std::shared_ptr<TURNRelayFactory> relayFactory, bool acceptFingerprint,
                       EventLoop::Clock clock)
    : credentials_(std::move(credentials)),
      realm_(std::move(realm)),
      relayFactory_(std::move(relayFactory)),
      acceptFingerprint_(acceptFingerprint),
      clock_(std::move(clock)) {}

TURNServer::~TURNServer() {
  stop();
}

// ---- Start and stop ----------------------------------------------------------------------------

void TURNServer::start() {
  if (loop_ || isStopped_) {
    throw TURNServerError::alreadyStartedOrStopped();
  }
  requireDigests();
  DatagramSocket socket = DatagramSocket::open();
  socket.bind(socketAddress("127.0.0.1", 0));
  socket.enlargeBuffers();
  try {
    prepare();
    socket_ = std::move(socket);
    loop_->watch(socket_.descriptor(), *this);
    boundPort_ = portNumber(socket_.localAddress());
    logLine(debugLog, FMT_COMPILE("bound 127.0.0.1:{}"), boundPort_);
    thread_ = startThread("zk.turn.server", [this] { loop_->run(); });
  } catch (...) {
    socket_.close();
    opener_.reset();
    loop_.reset();
    throw;
  }
}

// Everything but the socket and the thread.
void TURNServer::prepare() {
  startTime_ = clock_();
  loop_.emplace(clock_);
  receiver_.emplace();
  allocationTable_.emplace(realm_, acceptFingerprint_);
  allocationTable_->debugLog = debugLog;
  opener_.emplace(relayFactory_, debugLog);
  loop_->atEndOfRound([this] { sendOutbox(); });
  routes_.emplace(*this);
  loop_->watch(routes_->descriptor(), *routes_);
  sweepRegularly();
}

void TURNServer::stop() {
  isStopped_ = true;
  if (!loop_) {
    return;
  }
  loop_->stop();
  if (thread_.joinable()) {
    thread_.join();
  }
  opener_->stop();
  relayMap_.clear();
  cutOff_.clear();
  socket_.close();
  loop_.reset();  // and with it the relays that were handed over and nobody has taken
}

std::uint32_t TURNServer::now() const {
  return static_cast<std::uint32_t>((clock_() - startTime_) / nanosecondsPerSecond);
}

// ---- From clients towards peers ----------------------------------------------------------------

void TURNServer::onReadable() {
  const int received = receiver_->receive(socket_);
  sockaddr_in last{};  // who sent the last datagram, and as a client: mostly the next one's too
  FiveTuple client;
  for (std::size_t i = 0; received > 0 && i < static_cast<std::size_t>(received); ++i) {
    const ByteView datagram = receiver_->datagram(i);
    const sockaddr_in& sender = receiver_->sender(i);
    if (datagram.empty()) {
      continue;
    }
    if (!isSameAddress(sender, last)) {
      last = sender;
      client = {addressText(sender), portNumber(sender), TransportProtocol::udp};
    }
    logLine(debugLog, FMT_COMPILE("rx {}B from {}:{} firstByte=0x{:02x} kind={}"), datagram.size(),
            client.clientIP, client.clientPort, datagram[0], kindOf(datagram[0]));
    dispatch(datagram, client);
  }
  sendGathered();
}

void TURNServer::dispatch(ByteView datagram, const FiveTuple& client) {
  if (!openings_.empty()) {
    const auto opening = openings_.find(client);
    if (opening != openings_.end()) {
      keep(opening->second, datagram);
      return;
    }
  }
  switch (datagram[0] >> 6) {
    case 0b00:
      handleSTUN(datagram, client);
      break;
    case 0b01:
      handleChannelData(datagram, client);
      break;
    default:
      break;  // not for this protocol; it has been logged
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
  sendGathered();  // a request may end what the data before it is meant for
  const auto outcome = allocationTable_->handle(*message, client, datagram, credentials_, now());
  if (const auto* const pending = std::get_if<PendingAllocate>(&outcome)) {
    openRelay(*pending);
    return;
  }
  answer(std::get<TURNMessage>(outcome), client);
  if (allocationTable_->allocation(client) == nullptr) {
    releaseRelay(client);
  }
}

void TURNServer::handleSendIndication(TURNMessage message, const FiveTuple& client) {
  const auto peerValue = message.first(TURNAttr::xorPeerAddress);
  auto peer = peerValue ? TURNAttributes::decodeXorAddress(*peerValue) : std::nullopt;
  const auto payload = message.first(TURNAttr::data);
  if (!peer || !payload) {
    return;
  }
  if (ClientRelay* const relay = routeOf(client).relay) {
    gather(*relay, *payload, std::move(peer->ip), peer->port);
    gatheredMessages_.push_back(std::move(message));
  }
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
  const Route& route = routeOf(client);
  if (route.relay == nullptr) {
    return;
  }
  // No other number than 0x4000 to 0x7FFF ever gets into the map.
  const auto channel = route.allocation->channels.find(number);
  if (channel != route.allocation->channels.end()) {
    const auto& [ip, port] = channel->second;
    gather(*route.relay, datagram.subspan(channelHeaderSize, length), ip, port);
  }
}

// Looked up once for what a burst has from one client in a row: data changes nothing in the tables.
const TURNServer::Route& TURNServer::routeOf(const FiveTuple& client) {
  if (!route_ || route_->client != client) {
    const Allocation* const allocation = allocationTable_->allocation(client);
    const auto relay = relayMap_.find(client);
    const bool leadsOn =
        allocation != nullptr && !allocation->isExpired(now()) && relay != relayMap_.end();
    route_ = leadsOn ? Route{client, allocation, relay->second.get()} : Route{client};
  }
  return *route_;
}

void TURNServer::gather(ClientRelay& relay, ByteView payload, std::string peerIP,
                        std::uint16_t peerPort) {
  if (relay.outgoing.empty()) {
    gathered_.push_back(&relay);
  }
  relay.outgoing.push_back({payload, std::move(peerIP), peerPort});
}

void TURNServer::sendGathered() {
  for (ClientRelay* const relay : gathered_) {
    relay->relay->sendAll(relay->outgoing);
    relay->outgoing.clear();
  }
  route_.reset();
  gathered_.clear();
  gatheredMessages_.clear();
}

void TURNServer::answer(const TURNMessage& message, const FiveTuple& client) {
  logAnswer(debugLog, message);
  const ByteView section = message.attributeSection();
  sendToClient(message.header(section.size()), section,
               socketAddress(client.clientIP, client.clientPort));
}

// ---- Relays ------------------------------------------------------------------------------------

void TURNServer::openRelay(const PendingAllocate& allocate) {
  sweep();
  openings_[allocate.client].allocate = allocate;
  opener_->open(allocate.client, [this, client = allocate.client](auto opened) {
    loop_->post([this, client, opened = std::move(opened)] { concludeOpening(client, opened); });
  });
}

void TURNServer::keep(Opening& opening, ByteView datagram) {
  if (opening.kept.size() < maxKeptDatagrams &&
      opening.keptOctets + datagram.size() <= maxKeptOctets &&
      !isRetransmission(datagram, opening.allocate)) {
    opening.keptOctets += datagram.size();
    opening.kept.emplace_back(datagram.begin(), datagram.end());
  }
}

void TURNServer::concludeOpening(const FiveTuple& client,
                                 std::optional<RelayOpener::Opened> opened) {
  const auto ended = openings_.extract(client);
  const Opening& opening = ended.mapped();
  std::optional<RelayedAddress> address;
  if (opened) {
    auto relay = std::make_unique<ClientRelay>(*this, client, opened->relay);
    try {
      opened->relay->receive({*loop_, *receiver_, relaySender_}, *relay);
      opened->relay->onRouteChange(
          routeCheck(routes_->look()));  // what changed before nobody has told it
      releaseRelay(client);              // one that this one replaces
      relayMap_[client] = std::move(relay);
      address = opened->address;
    } catch (const std::system_error& error) {
      logLine(debugLog, FMT_COMPILE("relay OPEN FAILED: {}"), error.what());
    }
  }
  answer(allocationTable_->conclude(opening.allocate, address, now()), client);
  for (const Bytes& datagram : opening.kept) {
    dispatch(datagram, client);
  }
  sendGathered();
}

void TURNServer::Routes::onReadable() {
  watch_.drain();
  const RouteCheck check = routeCheck(look_);
  for (const auto& [client, relay] : server_.relayMap_) {
    relay->relay->onRouteChange(check);
  }
  std::erase_if(server_.cutOff_, [&](const auto& released) {
    released->relay->onRouteChange(check);
    return !released->relay->isCutOff();
  });
}

// A relay costs two descriptors and an association at the proxy; none of them outlives its use.
void TURNServer::releaseRelay(const FiveTuple& client) {
  auto released = relayMap_.extract(client);
  if (released && released.mapped()->relay->isCutOff()) {
    cutOff_.push_back(std::move(released.mapped()));
  }
}

void TURNServer::sweep() {
  const std::uint32_t time = now();
  if (time > graceAfterExpiry) {
    for (const FiveTuple& expired : allocationTable_->sweepExpired(time - graceAfterExpiry)) {
      releaseRelay(expired);
    }
  }
}

void TURNServer::sweepRegularly() {
  loop_->after(sweepInterval, [this] {
    sweep();
    allocationTable_->prune(now());
    sweepRegularly();
  });
}

// ---- From peers towards clients ----------------------------------------------------------------

TURNServer::ClientRelay::ClientRelay(TURNServer& owner, const FiveTuple& whose,
                                     std::shared_ptr<TURNRelay> opened)
    : server(owner),
      client(whose),
      clientAddress(socketAddress(whose.clientIP, whose.clientPort)),
      relay(std::move(opened)) {}

// One that is cut off outlives its release, and its client may have another relay by then.
bool TURNServer::ClientRelay::isReleased() const {
  const auto held = server.relayMap_.find(client);
  return held == server.relayMap_.end() || held->second.get() != this;
}

void TURNServer::ClientRelay::onDatagrams(std::span<const PeerDatagram> datagrams) {
  if (!isReleased()) {
    server.deliverFromRelay(datagrams, *this);
  }
}

void TURNServer::ClientRelay::onAssociationEnd(std::string_view reason) {
  logLine(server.debugLog, FMT_COMPILE("relay END for {}:{}: control connection: {}"),
          client.clientIP, client.clientPort, reason);
}

// The client's next request gets 437, and it allocates anew.
void TURNServer::ClientRelay::onSilence() {
  if (isReleased()) {
    return;
  }
  logLine(server.debugLog, FMT_COMPILE("relay SILENT since its end, released for {}:{}"),
          client.clientIP, client.clientPort);
  server.allocationTable_->remove(client);
  server.releaseRelay(client);  // and with it this
}

void TURNServer::deliverFromRelay(std::span<const PeerDatagram> datagrams,
                                  const ClientRelay& relay) {
  const FiveTuple& client = relay.client;
  const Allocation* const allocation = allocationTable_->allocation(client);
  const bool isAlive = allocation != nullptr && !allocation->isExpired(now());
  for (const PeerDatagram& datagram : datagrams) {
    const auto& [payload, peerIP, peerPort] = datagram;
    logLine(debugLog, FMT_COMPILE("relay rx {}B from {}:{} → client {}:{}"), payload.size(), peerIP,
            peerPort, client.clientIP, client.clientPort);
    if (!isAlive) {
      logLine(debugLog, FMT_COMPILE("relay rx DROP: no allocation or expired for {}:{}"),
              client.clientIP, client.clientPort);
      continue;
    }
    if (const auto channel = allocation->channelOf(peerIP, peerPort)) {
      sendToClient(channelDataHeader(*channel, payload), payload, relay.clientAddress);
    } else if (const auto indication = dataIndication(datagram)) {
      const ByteView section = indication->attributeSection();
      sendToClient(indication->header(section.size()), section, relay.clientAddress);
    } else {
      logLine(debugLog, FMT_COMPILE("relay rx DROP: peer address is not IPv4 for {}:{}"),
              client.clientIP, client.clientPort);
    }
  }
}

// A Data indication (RFC 5766 section 10.4). Absent when the peer has no IPv4 address.
std::optional<TURNMessage> TURNServer::dataIndication(const PeerDatagram& datagram) {
  const auto peerAddress = isDottedQuad(datagram.peerIP) ? TURNAttributes::encodeXorAddress(
                                                               datagram.peerIP, datagram.peerPort)
                                                         : std::nullopt;
  if (!peerAddress) {
    return std::nullopt;
  }
  TransactionID txID{};
  transactionIDs_.fill(txID);
  const std::size_t attributeRoom =
      2 * TURNMessage::attributeHeaderSize + peerAddress->size() + datagram.payload.size() + 3;
  TURNMessage indication(TURNMethod::dataMsg, TURNClass::indication, txID, attributeRoom);
  indication.append(TURNAttr::xorPeerAddress, *peerAddress);
  indication.append(TURNAttr::data, datagram.payload);
  return indication;
}

// Copied, since what comes from several relays in one round leaves together: the copy costs less
// than a call of its own.
void TURNServer::sendToClient(ByteView header, ByteView rest, const sockaddr_in& client) {
  if (clientSender_.isFull()) {
    sendOutbox();
  }
  Bytes& message = outbox_[clientSender_.size()];
  message.assign(header.begin(), header.end());
  message.insert(message.end(), rest.begin(), rest.end());
  clientSender_.add({}, message, client);
}

// What a client does not take in time is lost, as UDP has it.
void TURNServer::sendOutbox() {
  if (clientSender_.size() > 0) {
    clientSender_.send(socket_);
  }
}

}  // namespace zk
