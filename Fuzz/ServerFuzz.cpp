// Loop, table and openings together, on a clock that the input moves: datagrams of four clients and
// of their peers, openings that succeed, fail or linger while everything else goes on. The harness
// turns the loop itself. It keeps a model of what RFC 5766 calls for, apart from how the server
// does it: who is owed which answers and datagrams in which order, and who has a relay.

#include <array>
#include <map>

#include "ScriptedRelay.h"

namespace zk {

struct TURNServerAccess {
  TURNServer& server;
  void prepare(RelayOpener::StartThread startThread) {
    server.prepare();
    server.opener_.emplace(server.relayFactory_, LogCallback(), std::move(startThread));
    server.socket_ = DatagramSocket::open();
    server.socket_.bind(socketAddress("127.0.0.1", 0));
  }
  void dispatch(ByteView datagram, const FiveTuple& client) { server.dispatch(datagram, client); }
  void endBurst() {
    server.sendGathered();
    server.sendOutbox();
  }
  void turn() { server.loop_->turn(false); }
  const Allocation* allocation(const FiveTuple& client) const {
    return server.allocationTable_->allocation(client);
  }
  const std::deque<Bytes>* kept(const FiveTuple& client) const {
    const auto opening = server.openings_.find(client);
    return opening == server.openings_.end() ? nullptr : &opening->second.kept;
  }
};

namespace fuzz {
namespace {

constexpr std::size_t clientCount = 4;
const Credentials credentials{"user", "zk.example", "password"};
// What peers and relays are called. Only the first ones are addresses that a client can be told.
const std::array<std::string, 5> names{"198.51.100.1", "198.51.100.2", "proxy.test", "",
                                       std::string("10.0.0.1\0x", 10)};

// A client's socket, for the life of the process.
struct Endpoint {
  DatagramSocket socket = DatagramSocket::open();
  FiveTuple client{"127.0.0.1", 0, TransportProtocol::udp};
  Endpoint() {
    socket.bind(socketAddress(client.clientIP, 0));
    client.clientPort = portNumber(socket.localAddress());
  }
  std::vector<Bytes> received() const {
    static DatagramReceiver receiver;
    std::vector<Bytes> all;
    for (int count = 1; count > 0;) {
      count = receiver.receive(socket);
      for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        all.push_back(joined({receiver.datagram(i)}));
      }
    }
    return all;
  }
};

// A datagram of a client; genuine when it was signed with the right key and not changed since.
struct Sent {
  Bytes datagram;
  bool isGenuine;
};

struct Client {
  struct Held {
    std::uint32_t expiry;
    TransactionID txID;
    std::map<std::uint16_t, TURNAttributes::Address> channels{};
  };
  struct Opening {
    TransactionID txID;
    std::deque<Sent> kept{};
    std::size_t octets = 0;
  };
  Endpoint& endpoint;
  std::optional<Held> held{};                             // the allocation, expired or not
  std::optional<Opening> opening{};                       // never both
  std::map<TransactionID, std::uint32_t> failures{};      // and until when they are remembered
  std::vector<std::function<void(const Bytes&)>> owed{};  // what must come next, in order
  std::vector<Datagram> due{};                            // what peers must get, in order

  bool isAlive(std::uint32_t now) const { return held && held->expiry >= now; }
};

class World {
 public:
  explicit World(Input& input) : input_(input) {
    static std::array<Endpoint, clientCount> endpoints;
    for (Endpoint& endpoint : endpoints) {
      endpoint.received();  // of earlier executions
      clients_.push_back({endpoint});
    }
    script_.whileOpening = [this] {
      for (; linger_ > 0 && !input_.isEmpty(); --linger_) {
        step();
      }
    };
    script_.opened = [this](const ScriptedRelay& relay, bool success) {
      concluded_.push_back({whose(relay.client), success && !relay.plan.receiveFails, success});
    };
    access_.prepare([this](const std::string&, std::function<void()> body) {
      if (noThread_) {
        throw std::system_error(EAGAIN, std::generic_category());
      }
      bodies_.push_back(std::move(body));
    });
    dispatch(0, {TURNMessage(TURNMethod::allocate, TURNClass::request, {}).encode(), false});
    endBurst();
  }

  void step() {
    const std::uint8_t action = input_.octet();
    const std::size_t who = action >> 4 & 3;
    const bool continues = (action & 0x80) != 0;  // the burst goes on
    static constexpr std::uint16_t leaps[] = {1, 5, 30, 40, 41, 259, 299, 300, 301, 600};
    switch (action % 16) {
      case 0:
        endBurst();
        time_ += leaps[input_.octet() % std::size(leaps)] * second;
        break;
      case 1:
        if (const ByteView octets = input_.take(input_.octet()); !octets.empty()) {
          dispatch(who, {joined({octets}), false});
        }
        break;
      case 2:
        indicate(who);
        break;
      case 3: {
        Bytes datagram{0x40, input_.octet(), 0, input_.octet()};
        append(datagram, input_.take(input_.octet()));
        dispatch(who, {datagram, false});
        break;
      }
      case 4:
        fromPeer(who);
        break;
      case 5: {
        const std::uint8_t faults = input_.octet();
        script_.firstFails = (faults & 1) != 0;
        script_.secondFails = (faults & 2) != 0;
        script_.receiveFails = (faults & 4) != 0;
        noThread_ = (faults & 8) != 0;
        script_.address = names[(faults >> 4) % names.size()];
        break;
      }
      case 6:
        linger_ = input_.octet() % 8;
        runOpening();
        break;
      case 7:
        turn();
        break;
      case 8:
        relayEnds(who);
        break;
      case 9:  // more than may be kept
        for (std::size_t i = 0; i < TURNServer::maxKeptDatagrams; ++i) {
          dispatch(who, {Bytes(i % 3 == 0 ? 4000 : 20, static_cast<std::uint8_t>(i)), false});
        }
        break;
      default:
        request(who);
    }
    if (!continues || (action % 16 != 2 && action % 16 != 3)) {
      endBurst();
    }
  }

  // Opens what still is to be opened, for nobody.
  void end() {
    endBurst();
    linger_ = 0;
    while (!bodies_.empty()) {
      runOpening();
    }
    server_.stop();
    require(script_.alive == 0, "a stop leaves no relay open");
  }

 private:
  std::uint32_t now() const { return static_cast<std::uint32_t>((time_ - start) / second); }
  std::size_t whose(std::uint16_t port) const {
    std::size_t who = 0;
    while (clients_[who].endpoint.client.clientPort != port) {
      ++who;
    }
    return who;
  }

  // ---- What happens ----------------------------------------------------------------------------

  void indicate(std::size_t who) {
    TURNMessage message(TURNMethod::send, TURNClass::indication, {});
    appendAttributes(message);
    dispatch(who, {message.encode(), false});
  }

  void request(std::size_t who) {
    static constexpr std::uint16_t methods[] = {3, 3, 4, 9, 9, 8, 1, 6};
    const std::uint8_t kind = input_.octet();
    const std::uint8_t flaw = input_.octet() % 16;             // most of them are none
    TransactionID txID{static_cast<std::uint8_t>(kind >> 5)};  // few of them: they come again
    TURNMessage message(methods[kind % 8], static_cast<TURNClass>(kind % 29 == 0 ? 1 : 0), txID);
    message.append(TURNAttr::username, bytesOf("anybody"));
    if (flaw != 1) {
      message.append(TURNAttr::realm, bytesOf(credentials.realm));
    }
    message.append(TURNAttr::nonce, bytesOf(flaw == 2   ? nonces_.begin()->first
                                            : flaw == 3 ? "0123456789abcdef0123456789abcdef"
                                            : flaw == 4 ? "\xC3"
                                                        : latestNonce_));
    if (message.method == TURNMethod::allocate && flaw != 5) {
      message.append(TURNAttr::requestedTransport, Bytes{17, 0, 0, 0});
    }
    appendAttributes(message);
    auto key = key_;
    key[0] ^= flaw == 6;
    bool isGenuine = flaw != 6 && !message.first(TURNAttr::messageIntegrity);
    TURNAuth::appendMessageIntegrity(message, key);
    Bytes datagram = message.encode();
    if (flaw == 7) {
      datagram[input_.number() % datagram.size()] ^= std::max<std::uint8_t>(input_.octet(), 1);
      isGenuine = false;
    }
    dispatch(who, {datagram, isGenuine});
  }

  void appendAttributes(TURNMessage& message) {
    for (std::uint8_t count = input_.octet() % 4; count > 0; --count) {
      switch (const std::uint8_t kind = input_.octet(); kind % 8) {
        case 0:
          message.append(TURNAttr::lifetime, Bytes{0, 0, input_.octet(), input_.octet()});
          break;
        case 1:
        case 2:
          message.append(TURNAttr::xorPeerAddress,
                         *TURNAttributes::encodeXorAddress(names[kind >> 4 & 1], kind >> 6));
          break;
        case 3:
        case 4:
          message.append(TURNAttr::channelNumber, Bytes{0x40, kind, 0, 0});
          break;
        case 5:
        case 6:
          message.append(TURNAttr::data, input_.take(input_.octet()));
          break;
        default:
          message.append(input_.number(), input_.take(input_.octet()));
      }
    }
  }

  void dispatch(std::size_t who, Sent sent) {
    burst_.push_back(std::move(sent));  // payloads are read until the end of the burst
    access_.dispatch(burst_.back().datagram, clients_[who].endpoint.client);
    judge(who, burst_.back());
  }

  void endBurst() {
    access_.endBurst();
    burst_.clear();
    check();
  }

  void fromPeer(std::size_t who) {
    endBurst();
    Client& client = clients_[who];
    const auto relay = script_.live.find(client.endpoint.client.clientPort);
    const std::string& ip = names[input_.octet() % names.size()];
    const std::uint8_t detail = input_.octet();
    const auto port = static_cast<std::uint16_t>(detail % 4);
    const Bytes payload(input_.octet(), detail);
    if (relay == script_.live.end()) {
      return;
    }
    const std::vector<PeerDatagram> burst(1 + detail / 4, {payload, ip, port});
    relay->second->listener->onDatagrams(burst);
    if (client.isAlive(now()) && isDottedQuad(ip)) {
      client.owed.insert(client.owed.end(), burst.size(),
                         deliveryOf(*client.held, {payload, ip, port}));
    }
  }

  void relayEnds(std::size_t who) {
    endBurst();
    const auto relay = script_.live.find(clients_[who].endpoint.client.clientPort);
    if (relay != script_.live.end()) {
      relay->second->listener->onAssociationEnd("scripted");
      relay->second->listener->onSilence();
      clients_[who].held.reset();
    }
  }

  // On a thread of its own, as far as the server can tell.
  void runOpening() {
    endBurst();
    if (!bodies_.empty()) {
      const auto body = std::move(bodies_.front());
      bodies_.pop_front();
      ++running_;
      body();
      --running_;
    }
  }

  void turn() {
    endBurst();
    const auto concluded = std::exchange(concluded_, {});
    access_.turn();
    if (time_ >= nextSweep_) {
      nextSweep_ = time_ + 30 * second;
      sweep();
    }
    for (const auto& [who, success, relayMade] : concluded) {
      Client& client = clients_[who];
      const Client::Opening opening = *std::exchange(client.opening, std::nullopt);
      const auto lifetime = success ? std::optional(600U) : std::nullopt;
      owe(who, TURNMethod::allocate, opening.txID, success ? 0 : 500, lifetime);
      if (success) {
        client.held = Client::Held{now() + 600, opening.txID};
      } else {
        client.failures[opening.txID] = now() + 40;
      }
      for (const Sent& sent : opening.kept) {
        judge(who, sent);
      }
    }
  }

  // ---- What must come of it --------------------------------------------------------------------

  void judge(std::size_t who, const Sent& sent) {
    Client& client = clients_[who];
    const ByteView datagram = sent.datagram;
    const auto message = TURNMessage::decode(datagram);
    const bool isSTUN = datagram[0] >> 6 == 0 && message;
    if (client.opening) {
      Client::Opening& opening = *client.opening;
      if (opening.kept.size() < 64 && opening.octets + datagram.size() <= 65536 &&
          !(message && message->method == TURNMethod::allocate && message->txID == opening.txID)) {
        opening.octets += datagram.size();
        opening.kept.push_back(sent);
      }
    } else if (isSTUN && message->method == TURNMethod::send &&
               message->klass == TURNClass::indication) {
      const auto peer = message->first(TURNAttr::xorPeerAddress);
      const auto address = peer ? TURNAttributes::decodeXorAddress(*peer) : std::nullopt;
      const auto data = message->first(TURNAttr::data);
      if (address && data && client.isAlive(now())) {
        client.due.push_back({joined({*data}), address->ip, address->port});
      }
    } else if (isSTUN) {
      const int challenge = gateError(*message, sent.isGenuine);
      if (challenge != 0) {
        owe(who, message->method, message->txID, challenge);
      } else {
        judgeRequest(who, *message);
      }
    } else if (datagram[0] >> 6 == 1 && datagram.size() >= 4 && client.isAlive(now())) {
      const std::size_t length = readUInt16(datagram, 2);
      const auto channel = client.held->channels.find(readUInt16(datagram, 0));
      if (datagram.size() >= 4 + length && channel != client.held->channels.end()) {
        client.due.push_back(
            {joined({datagram.subspan(4, length)}), channel->second.ip, channel->second.port});
      }
    }
  }

  int gateError(const TURNMessage& message, bool isGenuine) const {
    const auto nonce = message.first(TURNAttr::nonce);
    if (!nonce || !message.first(TURNAttr::username) || !message.first(TURNAttr::realm) ||
        !message.first(TURNAttr::messageIntegrity) ||
        std::any_of(nonce->begin(), nonce->end(), [](auto octet) { return octet > 127; })) {
      return 401;
    }
    const auto issued = nonces_.find(std::string(textOf(*nonce)));
    return issued == nonces_.end() || now() - issued->second > 300 ? 438 : isGenuine ? 0 : 401;
  }

  void judgeRequest(std::size_t who, const TURNMessage& message) {
    Client& client = clients_[who];
    int error = client.isAlive(now()) ? 0 : 437;
    std::optional<std::uint32_t> lifetime;
    if (message.method == TURNMethod::allocate) {
      const auto transport = message.first(TURNAttr::requestedTransport);
      const auto failed = client.failures.find(message.txID);
      if (client.held) {
        error = client.held->txID == message.txID ? 0 : 437;
        lifetime = error == 0 ? std::optional(600U) : std::nullopt;
      } else if (!transport || transport->empty() || (*transport)[0] != 17) {
        error = 442;
      } else if (failed != client.failures.end() && failed->second >= now()) {
        error = 500;
      } else {
        sweep();
        client.opening = Client::Opening{message.txID};
        if (noThread_ && bodies_.empty() && running_ == 0) {
          concluded_.push_back({who, false, false});
        }
        return;
      }
    } else if (message.method == TURNMethod::refresh) {
      error = client.held ? 0 : 437;
      if (client.held) {
        const auto value = message.first(TURNAttr::lifetime);
        lifetime =
            std::min(value ? TURNAttributes::decodeLifetime(*value).value_or(600) : 600, 3600U);
        client.held->expiry = now() + *lifetime;
        if (lifetime == 0U) {
          client.held.reset();
        }
      }
    } else if (message.method == TURNMethod::channelBind) {
      const auto number = message.first(TURNAttr::channelNumber);
      const auto peer = message.first(TURNAttr::xorPeerAddress);
      const auto address = peer ? TURNAttributes::decodeXorAddress(*peer) : std::nullopt;
      if (error == 0 && number && number->size() >= 2 && (*number)[0] >> 6 == 1 && address) {
        client.held->channels[readUInt16(*number, 0)] = *address;
      } else if (error == 0) {
        error = 400;
      }
    } else if (message.method != TURNMethod::createPermission) {
      error = 400;
    }
    owe(who, message.method, message.txID, error, lifetime);
  }

  void sweep() {
    for (Client& client : clients_) {
      if (client.held && client.held->expiry + 300 < now()) {
        client.held.reset();
      }
    }
  }

  void owe(std::size_t who, std::uint16_t method, const TransactionID& txID, int error,
           std::optional<std::uint32_t> lifetime = std::nullopt) {
    clients_[who].owed.push_back([=, this](const Bytes& datagram) {
      const auto answer = TURNMessage::decode(datagram).value();
      const auto code = answer.first(TURNAttr::errorCode);
      const auto value = answer.first(TURNAttr::lifetime);
      const auto klass = error == 0 ? TURNClass::successResponse : TURNClass::errorResponse;
      require(answer.method == method && answer.txID == txID && answer.klass == klass &&
                  (code ? TURNAttributes::decodeErrorCode(*code) : 0) == error &&
                  (value ? TURNAttributes::decodeLifetime(*value) : std::nullopt) == lifetime,
              "the answer is the one that the request and the state call for");
      if (const auto nonce = answer.first(TURNAttr::nonce)) {
        latestNonce_ = textOf(*nonce);
        require(nonces_.emplace(latestNonce_, now()).second && (error == 401 || error == 438),
                "a challenge holds a new nonce");
      } else {
        require(TURNAuth::verifyMessageIntegrity(datagram, key_), "an answer is signed");
      }
    });
  }

  static std::function<void(const Bytes&)> deliveryOf(const Client::Held& held, Datagram arrival) {
    const auto channel =
        std::find_if(held.channels.begin(), held.channels.end(), [&](const auto& entry) {
          return entry.second.ip == arrival.ip && entry.second.port == arrival.port;
        });
    const int number = channel == held.channels.end() ? 0 : channel->first;
    return [number, arrival = std::move(arrival)](const Bytes& datagram) {
      const auto indication = TURNMessage::decode(datagram);
      const ByteView payload = number != 0 ? ByteView(datagram).subspan(4)
                                           : indication.value().first(TURNAttr::data).value();
      require(
          areEqual(payload, arrival.payload) && (number == 0 || readUInt16(datagram, 0) == number),
          "a peer speaks through its lowest channel, or by Data indications");
    };
  }

  // What must hold between bursts.
  void check() {
    std::size_t held = 0;
    for (std::size_t who = 0; who < clientCount; ++who) {
      Client& client = clients_[who];
      const std::vector<Bytes> received = client.endpoint.received();
      const auto owed = std::exchange(client.owed, {});
      require(received.size() == owed.size(), "just what is owed comes");
      for (std::size_t i = 0; i < owed.size(); ++i) {
        owed[i](received[i]);
      }
      const FiveTuple& tuple = client.endpoint.client;
      require(std::exchange(script_.sent[tuple.clientPort], {}) == std::exchange(client.due, {}),
              "just what a live allocation allows is relayed, in order");

      const Allocation* const allocation = access_.allocation(tuple);
      require(allocation != nullptr
                  ? client.held && client.held->expiry == allocation->lifetimeExpiry
                  : !client.held,
              "an allocation just where there must be one");
      require(script_.live.contains(tuple.clientPort) == client.held.has_value(),
              "a relay just as long as its allocation");
      held += client.held ? 1 : 0;

      const std::deque<Bytes>* const kept = access_.kept(tuple);
      require((kept != nullptr) == client.opening.has_value() &&
                  (kept == nullptr ||
                   std::equal(kept->begin(), kept->end(), client.opening->kept.begin(),
                              client.opening->kept.end(),
                              [](const Bytes& a, const Sent& b) { return a == b.datagram; })),
              "what waits for an opening is in order, bounded, and without retransmissions");
    }
    const auto handedOver = std::count_if(concluded_.begin(), concluded_.end(),
                                          [](const Concluded& c) { return c.relayMade; });
    require(running_ > 0 || script_.alive == held + static_cast<std::size_t>(handedOver),
            "no relay outlives its use");
  }

  struct Concluded {
    std::size_t who;
    bool success;
    bool relayMade;
  };

  static constexpr std::uint64_t second = 1'000'000'000;  // nanoseconds
  static constexpr std::uint64_t start = 123'456'789'012;
  const TURNAuth::LongTermKey key_ =
      TURNAuth::longTermKey(credentials.username, credentials.realm, credentials.password);

  Input& input_;
  std::uint64_t time_ = start;
  std::uint64_t nextSweep_ = start + 30 * second;
  ScriptedRelay::Script script_;
  bool noThread_ = false;
  std::size_t linger_ = 0;                    // steps that the next opening takes
  std::deque<std::function<void()>> bodies_;  // of the openings' threads
  int running_ = 0;
  std::vector<Concluded> concluded_;  // and not yet told the loop's thread
  std::deque<Sent> burst_;
  std::vector<Client> clients_;
  std::map<std::string, std::uint32_t> nonces_;  // all that were ever issued, and when
  std::string latestNonce_;

  TURNServer server_{credentials, credentials.realm, std::make_shared<ScriptedFactory>(script_),
                     false, [this] { return time_; }};
  TURNServerAccess access_{server_};
};

}  // namespace

void run(ByteView bytes) {
  Input input(bytes);
  World world(input);
  while (!input.isEmpty()) {
    world.step();
  }
  world.end();
}

std::vector<Bytes> seeds() {
  // Steps as World::step() reads them, for client 0 but for A: o runs the openings and turns the
  // loop, l runs one while others take steps, a asks, n with a new transaction, b binds a channel,
  // r refreshes, z with lifetime zero, k signs with another key, c changes on the way, s takes the
  // first nonce, i, d and p are data, f is a flood, e the relay's end, x, y and t have openings
  // fail and w succeed, the others let time pass.
  std::map<char, Bytes> steps;
  for (const auto& [letter, octets] : std::initializer_list<std::pair<char, const char*>>{
           {'o', "060007"},       {'l', "0607"},
           {'a', "0A000000"},     {'A', "1A000000"},
           {'n', "0A200000"},     {'b', "0A0300020103"},
           {'r', "0A020000"},     {'z', "0A020001000000"},
           {'k', "0A020600"},     {'c', "0A020700001E01"},
           {'s', "0A020200"},     {'i', "82020105026869"},
           {'d', "030302026869"}, {'p', "04001005"},
           {'f', "09"},           {'e', "08"},
           {'x', "0503"},         {'y', "0504"},
           {'t', "0508"},         {'w', "0500"},
           {'T', "07"},           {'1', "0000"},
           {'2', "0002"},         {'3', "0003"},
           {'4', "0004"},         {'7', "0007"},
           {'9', "0009"}}) {
    for (const char* at = octets; *at != 0 && at[1] != 0; at += 2) {
      steps[letter].push_back(
          static_cast<std::uint8_t>(std::stoi(std::string(at, 2), nullptr, 16)));
    }
  }
  std::vector<Bytes> all;
  for (const std::string_view text :
       {"aobidprzidpaoidp", "abidpaidpfAoidp", "aob9idprksridp972idpao", "xao3wano4aidp",
        "alAidpa3Abocidp", "xanidpwooideidpao", "yaoidpwnoidp", "taoidpwnoidp", "aAtnw2zo",
        "affoaidp", "Ao97T1aaoaidpn"}) {
    Bytes& seed = all.emplace_back();
    for (const char letter : text) {
      append(seed, steps.at(letter));
    }
  }
  return all;
}

}  // namespace fuzz
}  // namespace zk
