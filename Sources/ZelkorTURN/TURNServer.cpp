// The server on its loop, in the order in which a datagram passes: from a client's socket to its
// relay, the opening of relays, and from a relay back to the client.

#include "ZelkorTURN/TURNServer.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "Platform/Crypto.h"
#include "Platform/Thread.h"
#include "ZelkorTURN/ChannelData.h"

namespace zk {
namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;

// Expired allocations are kept this long, for a client that comes back late with a Refresh.
constexpr std::uint32_t graceAfterExpiry = 300;  // seconds
constexpr std::chrono::seconds sweepInterval{30};

bool isSTUN(ByteView datagram) {
  return datagram[0] >> 6 == 0b00;
}

bool isChannelData(ByteView datagram) {
  return datagram[0] >> 6 == 0b01;
}

std::string_view nameOf(TURNClass klass) {
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
  socket.bind({INADDR_LOOPBACK, 0});
  socket.enlargeBuffers();
  try {
    prepare();
    socket_ = std::move(socket);
    loop_->watch(socket_.descriptor(), *this);
    boundPort_ = socket_.localAddress().port;
    logLine(debugLog, FMT_COMPILE("bound 127.0.0.1:{}"), boundPort_);
    thread_ = startThread("zk.turn.server", [this] { loop_->run(); });
  } catch (...) {
    socket_.close();
    opener_.reset();
    lifetime_.reset();
    loop_.reset();
    throw;
  }
}

// Everything but the socket and the thread.
void TURNServer::prepare() {
  startTime_ = clock_();
  loop_.emplace(clock_);
  receiver_.emplace();
  allocationTable_.emplace(credentials_, realm_, acceptFingerprint_);
  allocationTable_->setDebugLog([this](std::string_view line) { lines_.add(line); });
  opener_.emplace(relayFactory_, debugLog);
  lifetime_.emplace(*loop_);
  loop_->atEndOfRound([this] { endRound(); });
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
  lifetime_.reset();
  clients_ = Clients();
  socket_.close();
  loop_.reset();  // and with it the relays that were handed over and nobody has taken
  lines_.flush();
}

std::uint32_t TURNServer::now() const {
  return static_cast<std::uint32_t>(sinceStart() / nanosecondsPerSecond);
}

// ---- From clients towards peers ----------------------------------------------------------------

void TURNServer::onReadable() {
  const int received = receiver_->receive(socket_);
  PeerBatch batch;
  for (std::size_t i = 0; received > 0 && i < static_cast<std::size_t>(received); ++i) {
    const ByteView datagram = receiver_->datagram(i);
    if (datagram.empty()) {
      continue;
    }
    const Endpoint sender = receiver_->sender(i);
    lines_.line() << "rx " << datagram.size() << "B from " << sender << " firstByte=0x"
                  << LineBatch::Hex{datagram[0]} << " kind="
                  << (isSTUN(datagram)          ? "STUN"
                      : isChannelData(datagram) ? "ChannelData"
                                                : "unknown");
    dispatch(datagram, sender, batch);
  }
}

void TURNServer::dispatch(ByteView datagram, const Endpoint& from, PeerBatch& batch) {
  Client* const client = clients_.find(from);
  if (client != nullptr && client->opening) {
    client->opening->keep(datagram);
  } else if (isSTUN(datagram)) {
    if (client != nullptr || isAdmitted(from)) {
      handleSTUN(datagram, from, client, batch);
    }
  } else if (isChannelData(datagram) && client != nullptr) {
    handleChannelData(datagram, *client, batch);
  }
}

bool TURNServer::isAdmitted(const Endpoint& stranger) {
  if (ration_.admits(stranger.port, sinceStart())) {
    return true;
  }
  if (strangersDropped_++ == 0) {
    loop_->after(std::chrono::seconds(1), [this] {
      lines_.line() << "stun: " << std::exchange(strangersDropped_, 0)
                    << " datagrams of strangers DROPPED, more than are looked at";
    });
  }
  return false;
}

void TURNServer::handleSTUN(ByteView datagram, const Endpoint& from, Client* client,
                            PeerBatch& batch) {
  const auto message = TURNMessageView::decode(datagram);
  if (!message) {
    lines_.line() << "stun: decode FAILED for " << datagram.size() << "B datagram from " << from;
    return;
  }
  lines_.line() << "stun method=0x" << LineBatch::Hex{message->method, 3}
                << " class=" << nameOf(message->klass) << " from " << from;
  if (message->method == TURNMethod::send && message->klass == TURNClass::indication) {
    if (client != nullptr) {
      handleSendIndication(*message, *client, batch);
    }
    return;
  }
  batch.send();  // a request may end what the data before it is meant for
  Allocation* const held = client != nullptr ? &client->allocation : nullptr;
  const auto outcome = allocationTable_->handle(*message, from, held, datagram, now());
  if (const auto* const pending = std::get_if<PendingAllocate>(&outcome)) {
    openRelay(*pending);
    return;
  }
  const auto& [response, ends] = std::get<AllocationTable::Answer>(outcome);
  answer(response, from);
  if (ends) {
    release(*client, Release::refreshed);
  }
}

void TURNServer::handleSendIndication(const TURNMessageView& message, Client& client,
                                      PeerBatch& batch) {
  const auto peerValue = message.first(TURNAttr::xorPeerAddress);
  const auto peer = peerValue ? TURNAttributes::decodeXorAddress(*peerValue) : std::nullopt;
  const auto payload = message.first(TURNAttr::data);
  if (peer && payload && !client.allocation.isExpired(now())) {
    batch.add(*client.relay, *payload, Peer(*peer));
  }
}

void TURNServer::handleChannelData(ByteView datagram, Client& client, PeerBatch& batch) {
  const auto data = ChannelData::decode(datagram);
  const Peer* const peer = data ? client.allocation.peerOf(data->channel) : nullptr;
  if (peer != nullptr && !client.allocation.isExpired(now())) {
    batch.add(*client.relay, data->payload, *peer);
  }
}

void TURNServer::answer(const TURNMessage& message, const Endpoint& to) {
  {
    auto line = lines_.line();
    line << "tx method=0x" << LineBatch::Hex{message.method, 3}
         << " class=" << nameOf(message.klass);
    const auto value = message.klass == TURNClass::errorResponse
                           ? message.first(TURNAttr::errorCode)
                           : std::nullopt;
    if (const auto code = value ? TURNAttributes::decodeErrorCode(*value) : std::nullopt) {
      line << " err=" << *code;
    }
    if (message.first(TURNAttr::xorRelayedAddress)) {
      line << " [has XOR-RELAYED-ADDRESS]";
    }
  }
  outbox_.add(message, to);
}

// ---- Relays ------------------------------------------------------------------------------------

void TURNServer::openRelay(const PendingAllocate& allocate) {
  sweep();
  clients_.open(*this, allocate);
  lines_.flush();  // the opening's come behind them
  opener_->open(allocate.client, [this, client = allocate.client](auto opened) {
    loop_->post([this, client, opened = std::move(opened)] { concludeOpening(client, opened); });
  });
}

void TURNServer::concludeOpening(const Endpoint& endpoint,
                                 std::optional<RelayOpener::Opened> opened) {
  Client& client = *clients_.find(endpoint);
  const auto opening = std::move(client.opening);
  if (opened) {
    try {
      opened->relay->receive({*loop_, *receiver_, relaySender_, relayLineRoom_}, client);
      client.relay = opened->relay;
      lifetime_->add(*client.relay);
    } catch (const std::system_error& error) {
      lines_.flush();
      logLine(debugLog, FMT_COMPILE("relay OPEN FAILED: {}"), error.what());
      opened->relay->close();
    }
  }
  if (client.isOpen()) {
    answer(allocationTable_->conclude(opening->allocate, opened->address, client.allocation, now()),
           endpoint);
  } else {
    release(client, Release::notOpened);
    answer(allocationTable_->concludeFailed(opening->allocate, now()), endpoint);
  }
  PeerBatch batch;
  for (const Bytes& datagram : opening->kept) {
    dispatch(datagram, endpoint, batch);
  }
}

// The one place where a client loses what it had: its next request gets 437, and it may allocate
// anew at once.
void TURNServer::release(Client& client, Release why) {
  if (why == Release::silent) {
    lines_.line() << "relay SILENT since its end, released for " << client.endpoint;
  } else if (why == Release::cutOff) {
    lines_.line() << "relay CUT OFF from the proxy, released for " << client.endpoint;
  }
  if (auto relay = clients_.release(client)) {
    lifetime_->retire(std::move(relay));
  }
}

void TURNServer::sweep() {
  const std::uint32_t time = now();
  if (time > graceAfterExpiry) {
    const auto isLongExpired = [&](const Client& client) {
      return client.allocation.isExpired(time - graceAfterExpiry);
    };
    for (Client* const expired : clients_.those(isLongExpired)) {
      release(*expired, Release::expired);
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

void TURNServer::onDatagrams(Client& client, std::span<const ReceivedDatagram> datagrams) {
  const bool isAlive = !client.allocation.isExpired(now());
  for (const ReceivedDatagram& datagram : datagrams) {
    const auto& [payload, peer, name] = datagram;
    if (name) {
      logLine([this](std::string_view line) { lines_.add(line); },
              FMT_COMPILE("relay rx {}B from {}:{} → client {}"), payload.size(), *name, peer.port,
              client.endpoint.text());
    } else {
      lines_.line() << "relay rx " << payload.size() << "B from " << peer << " → client "
                    << client.endpoint;
    }
    if (!isAlive) {
      lines_.line() << "relay rx DROP: no allocation or expired for " << client.endpoint;
    } else if (name) {
      lines_.line() << "relay rx DROP: peer address is not IPv4 for " << client.endpoint;
    } else if (const auto channel = client.allocation.channelOf(peer)) {
      outbox_.addChannelData(*channel, payload, client.endpoint);
    } else {
      outbox_.addIndication(peer, payload, client.endpoint);
    }
  }
}

void TURNServer::onAssociationEnd(Client& client, std::string_view reason) {
  lines_.line() << "relay END for " << client.endpoint << ": control connection: " << reason;
}

void TURNServer::onLoss(Client& client, RelayListener::Loss loss) {
  release(client, loss == RelayListener::Loss::silent ? Release::silent : Release::cutOff);
}

void TURNServer::endRound() {
  lines_.flush();  // first: whoever has an answer finds the lines about it
  outbox_.send();
  clients_.bury();
}

}  // namespace zk
