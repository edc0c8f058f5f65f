// The server as clients and peers see it: sequences of datagrams from three clients, datagrams from
// peers, alone and in bursts, failing relays, and a clock that moves. The harness signs requests
// with the right key, or not, and keeps a model of who may do what; every answer and every relayed
// datagram is held against the model, and every relay must be accounted for after every step.

#include <sys/socket.h>

#include "Platform/Sockets.h"
#include "ScriptedRelay.h"
#include "ServerModel.h"

namespace zk {

struct TURNServerAccess {
  TURNServer& server;
  void dispatch(const std::vector<std::pair<FiveTuple, Bytes>>& burst) {
    std::vector<TURNServer::ClientDatagram> datagrams;
    for (const auto& [client, datagram] : burst) {
      datagrams.push_back({datagram, client});
    }
    server.dispatchAll(datagrams);
  }
  void drain() {
    server.serialQ_.sync([] {});
  }
  const Allocation* allocation(const FiveTuple& client) const {
    return server.allocationTable_->allocation(client);
  }
  const auto& relays() const { return server.relayMap_; }
  bool isIdle() const { return !server.currentAllocatingClient_ && server.queuedOctets_ == 0; }
};

namespace fuzz {
namespace {

constexpr std::size_t clientCount = ServerModel::clientCount;
constexpr std::size_t largestAnswer = 100;  // of what requests are answered with
const Credentials credentials{"user", "zk.example", "password"};

// A client's socket, for the life of the process.
struct Endpoint {
  int socket = openUDPSocket();
  FiveTuple client{"127.0.0.1", 0, TransportProtocol::udp};
  Endpoint() {
    require(bindSocket(socket, socketAddress(client.clientIP, 0)), "a client socket can be had");
    client.clientPort = portNumber(localAddress(socket));
  }
  std::optional<Bytes> received() const {
    static std::array<std::uint8_t, 65536> buffer;
    const ssize_t size = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    return size < 0 ? std::nullopt : std::optional(Bytes(buffer.begin(), buffer.begin() + size));
  }
};

class World {
 public:
  World() {
    server_->debugLog = [](std::string_view line) {
      require(line.find('\n') == std::string_view::npos, "the log gets one line at a time");
    };
    server_->start();
  }

  ~World() {
    server_->stop();
    for (const auto& [client, relay] : factory_->made) {
      require(relay->closings == (relay->isOpen ? 1 : 0), "stop() leaves no relay open");
    }
    require(access_.relays().empty(), "stop() forgets the relays");
    requireSilence();
  }

  void step(Input& input) {
    const std::uint8_t choice = input.octet();
    const std::size_t who = (choice >> 4) % clientCount;
    const bool isFollowed = (choice & 0x08) != 0;  // by more data, all in one burst
    if (choice % 8 != 2 && choice % 8 != 3) {
      passOn();
    }
    switch (choice % 8) {
      case 0:
        time_ += input.number() * (choice < 0x80 ? second : second / 1024);
        model_.now = static_cast<std::uint32_t>((time_ - start_) / second);
        break;
      case 1: {
        const ByteView raw = input.take(input.octet());
        fromClient(who, raw.empty() ? Bytes(1) : joined({raw}), false);
        break;
      }
      case 2: {
        TURNMessage message(TURNMethod::send, TURNClass::indication, {choice});
        appendAttributes(message, input);
        gathered_.emplace_back(who, message.encode());
        break;
      }
      case 3: {
        Bytes datagram{0x40, input.octet(), 0, input.octet()};
        append(datagram, input.take(input.octet()));
        gathered_.emplace_back(who, datagram);
        break;
      }
      case 4:
        fromPeer(who, input);
        break;
      case 5:
        script_.faults = input.octet();
        script_.address = names[(script_.faults >> 4) % names.size()];
        break;
      default:
        request(who, input);
        break;
    }
    if (!isFollowed) {
      passOn();
    }
    checkState();
  }

 private:
  static const Endpoint& endpoint(std::size_t who) {
    static const std::array<Endpoint, clientCount> endpoints;
    return endpoints[who];
  }

  void requireSilence() const {
    for (std::size_t who = 0; who < clientCount; ++who) {
      require(!endpoint(who).received(), "nothing is sent that is not due");
    }
  }

  // Attributes of the input's choice: good ones that fit each other, and any value of any kind.
  static void appendAttributes(TURNMessage& message, Input& input) {
    for (std::size_t left = input.octet() % 6; left > 0; --left) {
      const std::uint8_t kind = input.octet();
      const std::uint8_t detail = input.octet();
      switch (kind % 6) {
        case 0:
          message.append(TURNAttr::requestedTransport, Bytes{17, 0, 0, 0});
          break;
        case 1:
          message.append(TURNAttr::xorPeerAddress,
                         *TURNAttributes::encodeXorAddress(names[detail & 1], detail >> 5));
          break;
        case 2:
          message.append(TURNAttr::channelNumber, Bytes{0x40, detail, 0, 0});
          break;
        case 3:
          message.append(TURNAttr::lifetime, Bytes{0, 0, detail, input.octet()});
          break;
        case 4:
          message.append(TURNAttr::data, input.take(detail));
          break;
        default:
          message.append(kind, input.take(detail % 16));
          break;
      }
    }
  }

  void request(std::size_t who, Input& input) {
    constexpr std::array<std::uint16_t, 8> methods{
        TURNMethod::allocate,    TURNMethod::allocate, TURNMethod::refresh,
        TURNMethod::channelBind, TURNMethod::refresh,  TURNMethod::createPermission,
        TURNMethod::channelBind, TURNMethod::dataMsg};
    const std::uint8_t kind = input.octet();
    const std::uint8_t flaw = input.octet();
    if (model_.nonces.empty()) {
      fromClient(who, TURNMessage(TURNMethod::allocate, TURNClass::request, {}).encode(), false);
    }
    TransactionID txID{++transactions_, flaw};
    if ((kind & 0x80) != 0 && model_.clients[who]) {
      txID = model_.clients[who]->txID;
    }
    TURNMessage message(methods[kind % 8], static_cast<TURNClass>(kind >> 3 & 3), txID);
    message.append(TURNAttr::username, bytesOf("anybody"));
    if (flaw != 1) {
      message.append(TURNAttr::realm, bytesOf(credentials.realm));
    }
    const bool wantsOld = flaw == 2 || flaw == 3;
    message.append(TURNAttr::nonce, bytesOf(flaw == 4   ? "0123456789abcdef0123456789abcdef"
                                            : flaw == 5 ? "\xC3"
                                            : wantsOld  ? model_.nonces.begin()->first
                                                        : latestNonce_));
    appendAttributes(message, input);
    auto key = TURNAuth::longTermKey(credentials.username, credentials.realm, credentials.password);
    key[0] ^= flaw == 6;
    bool isGenuine = flaw != 6 && !message.first(TURNAttr::messageIntegrity);
    TURNAuth::appendMessageIntegrity(message, key);
    Bytes datagram = message.encode();
    if (flaw == 7) {
      datagram[input.number() % datagram.size()] ^= std::max<std::uint8_t>(input.octet(), 1);
      isGenuine = false;
    }
    if (flaw == 8) {
      datagram.push_back(0);  // behind the message, where nothing counts
    }
    fromClient(who, datagram, isGenuine);
  }

  static bool isSend(const TURNMessage& message) {
    return message.method == TURNMethod::send && message.klass == TURNClass::indication;
  }

  // Hands over what is gathered in one burst.
  void passOn() {
    script_.sent.clear();
    script_.openings = 0;
    std::vector<std::pair<FiveTuple, Bytes>> burst;
    std::vector<Datagram> due;
    for (const auto& [who, datagram] : gathered_) {
      burst.emplace_back(endpoint(who).client, datagram);
      const auto message = TURNMessage::decode(datagram);
      const auto its =
          message && isSend(*message) ? model_.dueOf(who, *message) : model_.dueOf(who, datagram);
      if (its) {
        due.push_back(*its);
      }
    }
    gathered_.clear();
    access_.dispatch(burst);
    require(script_.sent.size() == due.size(), "just what a live allocation allows is relayed");
    for (std::size_t i = 0; i < due.size(); ++i) {
      const Datagram& sent = script_.sent[i];
      require(sent.payload == due[i].payload && sent.ip == due[i].ip && sent.port == due[i].port,
              "a datagram is relayed as it is, to its peer, in its turn");
    }
  }

  void fromClient(std::size_t who, const Bytes& datagram, bool isGenuine) {
    gathered_.emplace_back(who, datagram);
    passOn();
    const auto message = TURNMessage::decode(datagram);
    if (message && !isSend(*message)) {
      const auto answer = endpoint(who).received();
      require(answer && answer->size() <= largestAnswer, "one answer, and a small one");
      const auto decoded = TURNMessage::decode(*answer);
      require(decoded.has_value(), "an answer decodes");
      checkAnswer(who, *message, *decoded, *answer, isGenuine);
    }
    requireSilence();
  }

  void checkAnswer(std::size_t who, const TURNMessage& message, const TURNMessage& answer,
                   ByteView wire, bool isGenuine) {
    const int challenge = model_.gateError(message, isGenuine);
    const int error = challenge != 0 ? challenge : model_.outcome(who, message, script_);
    const auto code = answer.first(TURNAttr::errorCode);
    require(
        answer.method == message.method && answer.txID == message.txID &&
            answer.klass == (error == 0 ? TURNClass::successResponse : TURNClass::errorResponse) &&
            (code ? TURNAttributes::decodeErrorCode(*code) : 0) == error,
        "the answer is the one that the request and the state call for");
    const auto key =
        TURNAuth::longTermKey(credentials.username, credentials.realm, credentials.password);
    if (challenge != 0) {
      const auto nonce = answer.first(TURNAttr::nonce);
      const auto realm = answer.first(TURNAttr::realm);
      require(nonce && nonce->size() == 32 && realm && textOf(*realm) == credentials.realm &&
                  !answer.first(TURNAttr::messageIntegrity),
              "a challenge holds realm and nonce and is not signed");
      latestNonce_ = textOf(*nonce);
      require(model_.nonces.emplace(latestNonce_, model_.now).second, "a nonce is new");
      return;
    }
    require(TURNAuth::verifyMessageIntegrity(wire, key), "an answer to a client is signed");
    const auto lifetime = answer.first(TURNAttr::lifetime);
    const auto seconds = lifetime ? TURNAttributes::decodeLifetime(*lifetime) : std::nullopt;
    if (error == 0 && message.method == TURNMethod::refresh) {
      require(seconds == model_.granted, "Refresh grants at most an hour");
    }
    if (error == 0 && message.method == TURNMethod::allocate) {
      const auto relayed = answer.first(TURNAttr::xorRelayedAddress);
      const auto mapped = answer.first(TURNAttr::xorMappedAddress);
      require(
          seconds == 600U && relayed && mapped &&
              TURNAttributes::decodeXorAddress(*relayed)->ip == model_.clients[who]->relayIP &&
              TURNAttributes::decodeXorAddress(*mapped)->port == endpoint(who).client.clientPort,
          "Allocate tells both addresses and the lifetime");
      model_.sweep();
    }
  }

  void fromPeer(std::size_t who, Input& input) {
    const std::string& ip = names[input.octet() % names.size()];
    const std::uint8_t detail = input.octet();
    const std::uint16_t port = detail % 8;
    const std::uint8_t size = input.octet();
    const Bytes payload(size < 0xF0 ? size : size * 255U, size);
    const auto entry = access_.relays().find(endpoint(who).client);
    if (entry == access_.relays().end()) {
      return;
    }
    // Several of them, as long as the client's socket has room.
    const std::vector<PeerDatagram> burst(size < 0xF0 ? 1 + detail / 16 : 1, {payload, ip, port});
    static_cast<ScriptedRelay&>(*entry->second).handler(burst);
    access_.drain();
    for (std::size_t i = 0; i < burst.size(); ++i) {
      checkDelivery(who, burst[i]);
    }
    requireSilence();
  }

  void checkDelivery(std::size_t who, const PeerDatagram& arrival) {
    const auto& [payload, ip, port] = arrival;
    const auto datagram = endpoint(who).received();
    std::vector<std::uint16_t> bound;
    if (model_.isAlive(who)) {
      for (const auto& [number, peer] : model_.clients[who]->channels) {
        if (peer.ip == ip && peer.port == port) {
          bound.push_back(number);
        }
      }
    }
    require(datagram.has_value() == (model_.isAlive(who) && isDottedQuad(ip)),
            "a peer reaches just the client of a live allocation");
    if (datagram && !bound.empty()) {
      require(std::count(bound.begin(), bound.end(), readUInt16(*datagram, 0)) == 1 &&
                  readUInt16(*datagram, 2) == payload.size() &&
                  areEqual(ByteView(*datagram).subspan(4), payload),
              "a peer with a channel speaks through it");
    } else if (datagram) {
      const auto indication = TURNMessage::decode(*datagram);
      require(indication && indication->method == TURNMethod::dataMsg &&
                  indication->klass == TURNClass::indication,
              "a peer without a channel speaks by Data indications");
      const auto peer = TURNAttributes::decodeXorAddress(
          indication->first(TURNAttr::xorPeerAddress).value_or(ByteView()));
      const auto data = indication->first(TURNAttr::data);
      require(peer && peer->ip == ip && peer->port == port && data && areEqual(*data, payload),
              "a Data indication tells the peer and the payload");
    }
  }

  // What must hold after every step.
  void checkState() const {
    require(!InterfaceScope::modeOverride, "no override outlives an opening");
    require(access_.isIdle(), "nothing is left of the datagram");
    std::size_t alive = 0;
    for (const auto& [client, relay] : factory_->made) {
      const auto entry = access_.relays().find(client);
      const bool isHeld = entry != access_.relays().end() && entry->second == relay;
      require(relay->closings == (relay->isOpen && !isHeld ? 1 : 0),
              "a relay is open just while its client holds it, and closed once");
      alive += isHeld ? 1 : 0;
    }
    require(alive == access_.relays().size(), "no relay from elsewhere");
    for (std::size_t who = 0; who < clientCount; ++who) {
      const Allocation* const held = access_.allocation(endpoint(who).client);
      const auto& model = model_.clients[who];
      require((held != nullptr) == model.has_value(), "an allocation just where there must be one");
      require(access_.relays().contains(endpoint(who).client) == model.has_value(),
              "a relay just where there is an allocation");
      require(!model || (held->lifetimeExpiry == model->expiry &&
                         held->channels.size() == model->channels.size()),
              "an allocation holds what was granted");
    }
  }

  static constexpr std::uint64_t second = 1'000'000'000;  // nanoseconds
  static constexpr std::uint64_t start_ = 123'456'789'012;

  std::uint64_t time_ = start_;
  Script script_;
  const std::shared_ptr<ScriptedFactory> factory_ = std::make_shared<ScriptedFactory>(script_);
  const std::shared_ptr<TURNServer> server_ = std::make_shared<TURNServer>(
      credentials, credentials.realm, factory_, [this] { return time_; });
  TURNServerAccess access_{*server_};

  ServerModel model_;
  std::string latestNonce_;
  std::vector<std::pair<std::size_t, Bytes>> gathered_;  // data of clients, by whom
  std::uint8_t transactions_ = 0;
};

}  // namespace

void run(ByteView bytes) {
  World world;
  for (Input input(bytes); !input.isEmpty();) {
    world.step(input);
  }
}

std::vector<Bytes> seeds() {
  // Steps as World::step() reads them, for client 0 unless said otherwise.
  const Bytes allocate{6, 0, 0, 1, 0, 0};
  const Bytes allocateByOther{0x16, 0, 0, 1, 0, 0};
  const Bytes retransmit{6, 0x80, 0, 1, 0, 0};
  const Bytes bind{6, 3, 0, 2, 2, 1, 1, 0};  // channel 0x4001 to the first peer, port 0
  const Bytes permit{6, 5, 0, 1, 1, 0};
  const Bytes refresh{6, 2, 0, 0};
  const Bytes release{6, 2, 0, 1, 3, 0, 0};
  const Bytes badKey{6, 2, 6, 0};
  const Bytes oldNonce{6, 2, 2, 0};
  const Bytes changed{6, 2, 7, 0, 0, 30, 1};
  const Bytes indication{2, 2, 1, 0, 4, 2, 'h', 'i'};
  const Bytes channelData{3, 1, 2, 2, 'h', 'i'};
  const Bytes peer{4, 0, 0, 5};
  const Bytes hugePeer{4, 1, 3, 0xFF};
  const Bytes wait299{0, 0x01, 0x2B};
  const Bytes wait300{0, 0x01, 0x2C};
  const Bytes wait1{0, 0x00, 0x01};
  const Bytes wait601{0, 0x02, 0x59};
  const Bytes noFaults{5, 0};
  const Bytes data = joined({indication, channelData, peer, hugePeer});
  std::vector<Bytes> all{
      joined({allocate, bind, permit, data, refresh, release, data, allocate}),
      joined({allocate, retransmit, allocate, wait299, data, wait299, oldNonce, refresh, data}),
      joined({allocate, bind, wait601, data, refresh, refresh, data, wait601, wait601,
              allocateByOther, allocateByOther, data}),
      joined({allocate, wait300, refresh, wait1, refresh, refresh, wait300, wait300, data, wait1,
              data}),
      joined({badKey, oldNonce, changed, allocate, badKey, changed, release, release}),
      joined({Bytes{1, 4, 0x40, 1, 0, 0}, Bytes{1, 1, 0xFF}, Bytes{1, 1, 0}, allocate, data})};
  for (std::uint8_t faults = 1; faults < 0x70; faults = static_cast<std::uint8_t>(faults * 2 + 1)) {
    all.push_back(joined({Bytes{5, faults}, allocate, data, noFaults, allocate, data}));
  }
  all.push_back(joined({Bytes{5, 0x60}, allocate, data, noFaults, allocate, data}));
  all.push_back(joined({Bytes{5, 9}, allocate, data, Bytes{5, 4}, release, allocate, data}));
  return all;
}

}  // namespace fuzz
}  // namespace zk
