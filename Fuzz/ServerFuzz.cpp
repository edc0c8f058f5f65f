// Loop, table and openings together, on a clock that the input moves: datagrams of four clients and
// of their peers, openings that succeed or fail, and take their time while everything else goes on.
// The harness turns the loop itself. It keeps a model of what RFC 5766 calls for, apart from how
// the server does it: who is owed which answers and datagrams in which order, and who has a relay.

#include <array>
#include <functional>
#include <map>
#include <sstream>
#include <system_error>

#include <sys/socket.h>

#include "Base/Endpoint.h"
#include "Fuzz.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorTURN/TURNServer.h"

namespace zk {

struct TURNServerAccess {
  TURNServer& server;
  void prepare(RelayOpener::StartThread startThread) {
    server.prepare();
    server.opener_.emplace(server.relayFactory_, LogCallback(), std::move(startThread));
    server.socket_ = DatagramSocket::open();
    server.socket_.bind(Endpoint{INADDR_LOOPBACK, 0});
  }
  void dispatch(ByteView datagram, const Endpoint& from) { server.dispatch(datagram, from, batch); }
  void endBurst() {
    batch.send();
    server.endRound();
  }
  void turn() { server.loop_->turn(false); }
  const Allocation* allocation(const Endpoint& client) const {
    const Client* const record = server.clients_.find(client);
    return record != nullptr && record->isOpen() ? &record->allocation : nullptr;
  }

  PeerBatch batch{};
};

namespace fuzz {
namespace {

using namespace TURNAttributes;

const Credentials credentials{"user", "zk.example", "password"};
const TURNAuth::LongTermKey goodKey =
    TURNAuth::longTermKey(credentials.username, credentials.realm, credentials.password);
// What peers and relays are called. Only the first ones are addresses that a client can be told.
const std::array<std::string, 5> names{"198.51.100.1", "198.51.100.2", "proxy.test", "",
                                       std::string("10.0.0.1\0x", 10)};

// What `decode` reads in the first attribute of that type; nothing when there is none.
template <typename Decode>
auto valueOf(const TURNMessage& message, std::uint16_t type, Decode decode) {
  const auto value = message.first(type);
  return value ? decode(*value) : decltype(decode(*value)){};
}

struct Datagram {
  Bytes payload;
  Endpoint peer{};
  bool operator==(const Datagram&) const = default;
};

// The openings to come; names[faults >> 4] is what their relays are called.
enum Fault : std::uint8_t { firstFails = 1, secondFails = 2, receiveFails = 4, noThread = 8 };
const std::string& relayName(std::uint8_t faults) {
  return names[(faults >> 4) % names.size()];
}

// Makes the relays, and what all of them share. Clients are known by their ports.
struct Script final : TURNRelayFactory {
  std::shared_ptr<TURNRelay> makeRelay(const Endpoint& client) override;

  std::uint8_t faults = 0;
  std::vector<std::pair<std::uint16_t, bool>> concluded;  // openings, with success or without
  std::map<std::uint16_t, RelayListener*> live;           // of the relays in use
  std::map<std::uint16_t, std::vector<Datagram>> sent;
  std::size_t relays = 0;
};

// Does as it was told when it was made, and watches over how it is used.
struct ScriptedRelay final : TURNRelay {
  ScriptedRelay(Script& itsScript, std::uint16_t itsClient)
      : script(itsScript), faults(itsScript.faults), client(itsClient) {
    ++script.relays;
  }
  ~ScriptedRelay() {
    close();
    --script.relays;
  }
  RelayedAddress allocateRelay(const OpeningAttempt& attempt) override {
    const bool fails = (faults & (attempt.viaDefault ? secondFails : firstFails)) != 0;
    const bool isUsable = !fails && parseAddress(relayName(faults)).has_value();
    if (isUsable || attempt.viaDefault) {
      script.concluded.emplace_back(client, isUsable && (faults & receiveFails) == 0);
    }
    if (fails) {
      throw SOCKS5Error::connectionFailed("scripted");
    }
    return {relayName(faults), 40000};
  }
  void receive(const RelayLoop&, RelayListener& listener) override {
    if ((faults & receiveFails) != 0) {
      throw std::system_error(EAGAIN, std::generic_category());
    }
    isInUse = script.live.emplace(client, &listener).second;
    require(isInUse, "one relay for a client, which receives once");
  }
  void sendAll(std::span<const PeerDatagram> datagrams) override {
    require(isInUse, "only a relay that is in use sends");
    for (const auto& [payload, peer] : datagrams) {
      script.sent[client].push_back({joined({payload}), peer.endpoint});
    }
  }
  RelayWay way() const override { return {}; }
  void setCutOff(bool) override {}
  bool isCutOff() const override { return false; }
  void retire() override {}
  void close() override {
    if (std::exchange(isInUse, false)) {
      script.live.erase(client);
    }
  }

  Script& script;
  const std::uint8_t faults;
  const std::uint16_t client;
  bool isInUse = false;
};

std::shared_ptr<TURNRelay> Script::makeRelay(const Endpoint& client) {
  return std::make_shared<ScriptedRelay>(*this, client.port);
}

// What a datagram says to a client.
struct Told {
  std::uint16_t method;  // or the channel
  TransactionID txID{};  // of an answer
  int error = 0;
  std::optional<std::uint32_t> lifetime{};
  Datagram data{};  // from a peer; its name goes without saying on a channel
  bool operator==(const Told&) const = default;
};

struct Client {
  struct Held {
    std::uint64_t expiry;
    TransactionID txID;
    std::map<std::uint16_t, Endpoint> channels{};
  };
  struct Opening {
    TransactionID txID;
    std::deque<Bytes> kept{};
    std::size_t octets = 0;
  };
  Client() {
    socket.bind({INADDR_LOOPBACK, 0});
    endpoint = socket.localAddress();
  }
  std::vector<Bytes> received() const {
    static std::array<std::uint8_t, 65536> room;
    std::vector<Bytes> all;
    ssize_t size = 0;
    while ((size = recv(socket.descriptor(), room.data(), room.size(), MSG_DONTWAIT)) >= 0) {
      all.emplace_back(room.begin(), room.begin() + size);
    }
    return all;
  }
  bool isAlive(std::uint64_t now) const { return held && held->expiry >= now; }

  DatagramSocket socket = DatagramSocket::open();
  Endpoint endpoint;
  std::optional<Held> held;                         // the allocation, expired or not
  std::optional<Opening> opening;                   // never both
  std::map<TransactionID, std::uint64_t> failures;  // and until when they are remembered
  std::vector<Told> owed;                           // what must come next, in order
  std::vector<Datagram> due;                        // what peers must get, in order
};

class World {
 public:
  explicit World(Input& input) : input_(input) {
    access_.prepare([this](const std::string&, std::function<void()> body) {
      if ((script_->faults & noThread) != 0) {
        throw std::system_error(EAGAIN, std::generic_category());
      }
      bodies_.push_back(std::move(body));
    });
    dispatch(clients_[0], TURNMessage(TURNMethod::allocate, TURNClass::request, {}).encode());
    endBurst();
  }

  void step() {
    const std::uint8_t action = input_.octet();
    Client& client = clients_[action >> 4 & 3];
    static constexpr std::uint16_t leaps[] = {1, 5, 30, 40, 41, 259, 299, 300, 301, 600};
    switch (action % 16) {
      case 0:
        endBurst();
        now_ += leaps[input_.octet() % std::size(leaps)];
        break;
      case 1:
        if (const ByteView octets = input_.take(input_.octet()); !octets.empty()) {
          dispatch(client, joined({octets}));
        }
        break;
      case 2:
        fromRelay(client);
        break;
      case 3:
        script_->faults = input_.octet();
        break;
      case 4:
        runOpening();
        break;
      case 5:
        turn();
        break;
      case 6:  // more than may be kept, and not so often that strangers are rationed
        for (std::uint8_t i = 0; floods_ < 8 && i < Opening::maxDatagrams; ++i) {
          TURNMessage message(1, TURNClass::request, {i});
          message.append(TURNAttr::data, Bytes(i % 3 == 0 ? 4000 : 0));
          dispatch(client, message.encode());
        }
        ++floods_;
        break;
      default:
        ask(client);
    }
    if ((action & 0x80) == 0 || burst_.size() >= maxBurst) {  // else the burst goes on
      endBurst();
    }
  }

  // Opens what still is to be opened, for nobody.
  void end() {
    endBurst();
    while (!bodies_.empty()) {
      runOpening();
    }
    server_.stop();
    require(script_->relays == 0, "a stop leaves no relay open");
  }

 private:
  // ---- What happens ----------------------------------------------------------------------------

  void ask(Client& client) {
    static constexpr std::uint16_t methods[] = {3, 3, 4, 9, 9, 8, 1, 6};
    const std::uint8_t kind = input_.octet();
    const std::uint8_t flaw = input_.octet() % 16;             // most of them are none
    TransactionID txID{static_cast<std::uint8_t>(kind >> 5)};  // few of them: they come again
    TURNMessage message(methods[kind % 8], static_cast<TURNClass>(kind >> 4 & 1), txID);
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
    static constexpr std::uint16_t types[] = {TURNAttr::channelNumber, TURNAttr::lifetime,
                                              TURNAttr::data};
    for (std::uint8_t count = input_.octet() % 4; count > 0; --count) {
      const std::uint8_t which = input_.octet();
      if (which % 4 == 3) {
        message.append(TURNAttr::xorPeerAddress,
                       encodeXorAddress({*parseAddress(names[which >> 4 & 1]),
                                         static_cast<std::uint16_t>(which >> 6)}));
      } else {
        const std::uint16_t type = which < 0xC0 ? types[which % 4] : input_.number();
        message.append(type, input_.take(input_.octet()));
      }
    }
    auto key = goodKey;
    key[0] ^= flaw == 6;
    TURNAuth::appendMessageIntegrity(message, key);
    Bytes datagram = message.encode();
    if (flaw == 7) {
      datagram[input_.number() % datagram.size()] ^= input_.octet();
    }
    dispatch(client, std::move(datagram));
  }

  void dispatch(Client& client, Bytes datagram) {
    burst_.push_back(std::move(datagram));  // payloads are read until the end of the burst
    access_.dispatch(burst_.back(), client.endpoint);
    judge(client, burst_.back());
  }

  void endBurst() {
    access_.endBurst();
    burst_.clear();
    check();
  }

  // Datagrams of a peer, or the end.
  void fromRelay(Client& client) {
    endBurst();
    const std::string& ip = names[input_.octet() % names.size()];
    const std::uint8_t detail = input_.octet();
    const auto port = static_cast<std::uint16_t>(detail % 4);
    const Bytes payload(input_.octet(), detail);
    const auto relay = script_->live.find(client.endpoint.port);
    if (relay == script_->live.end()) {
      return;
    }
    if (detail == 0) {
      relay->second->onAssociationEnd("scripted");
      relay->second->onLoss(RelayListener::Loss::silent);
      client.held.reset();
      return;
    }
    const auto address = parseAddress(ip);
    const Endpoint peer{address.value_or(0), port};
    const std::vector<ReceivedDatagram> burst(
        1 + detail / 4, {payload, peer, address ? std::nullopt : std::optional(ip)});
    relay->second->onDatagrams(burst);
    if (client.isAlive(now_) && address) {
      const auto& channels = client.held->channels;
      const auto bound = std::find_if(channels.begin(), channels.end(),
                                      [&](const auto& channel) { return channel.second == peer; });
      const Told told = bound == channels.end()
                            ? Told{TURNMethod::dataMsg, {}, 0, {}, {payload, peer}}
                            : Told{bound->first, {}, 0, {}, {payload}};
      client.owed.insert(client.owed.end(), burst.size(), told);
    }
  }

  // On a thread of its own, as far as the server can tell.
  void runOpening() {
    endBurst();
    if (!bodies_.empty()) {
      const auto body = std::move(bodies_.front());
      bodies_.pop_front();
      body();
    }
  }

  void turn() {
    endBurst();
    const auto concluded = std::exchange(script_->concluded, {});
    access_.turn();
    if (now_ >= nextSweep_) {
      nextSweep_ = now_ + 30;
      sweep();
    }
    for (const auto& ending : concluded) {
      Client& client = *std::find_if(clients_.begin(), clients_.end(), [&](const Client& each) {
        return each.endpoint.port == ending.first;
      });
      const Client::Opening opening = *std::exchange(client.opening, std::nullopt);
      if (ending.second) {
        client.held = Client::Held{now_ + 600, opening.txID};
        client.owed.push_back({TURNMethod::allocate, opening.txID, 0, 600});
      } else {
        client.failures[opening.txID] = now_ + 40;
        client.owed.push_back({TURNMethod::allocate, opening.txID, 500});
      }
      for (const Bytes& datagram : opening.kept) {
        judge(client, datagram);
      }
    }
  }

  // ---- What must come of it --------------------------------------------------------------------

  void judge(Client& client, const Bytes& datagram) {
    const auto message = TURNMessage::decode(datagram);
    if (client.opening) {
      Client::Opening& opening = *client.opening;
      if (opening.kept.size() < 64 && opening.octets + datagram.size() <= 65536 &&
          !(message && message->method == TURNMethod::allocate && message->txID == opening.txID)) {
        opening.octets += datagram.size();
        opening.kept.push_back(datagram);
      }
    } else if (message && message->method == TURNMethod::send &&
               message->klass == TURNClass::indication) {
      const auto peer = valueOf(*message, TURNAttr::xorPeerAddress, decodeXorAddress);
      const auto data = message->first(TURNAttr::data);
      if (peer && data && client.isAlive(now_)) {
        client.due.push_back({joined({*data}), *peer});
      }
    } else if (message) {
      judgeRequest(client, *message, datagram);
    } else if (datagram[0] >> 6 == 1 && datagram.size() >= 4 && client.isAlive(now_)) {
      const std::size_t length = readUInt16(datagram, 2);
      const auto channel = client.held->channels.find(readUInt16(datagram, 0));
      if (datagram.size() >= 4 + length && channel != client.held->channels.end()) {
        client.due.push_back({joined({ByteView(datagram).subspan(4, length)}), channel->second});
      }
    }
  }

  // Whether MESSAGE-INTEGRITY holds is for another harness to judge.
  int gateError(const TURNMessage& message, ByteView datagram) const {
    const auto nonce = valueOf(message, TURNAttr::nonce, decodeNonce);
    if (!nonce || !message.first(TURNAttr::username) || !message.first(TURNAttr::realm) ||
        !message.first(TURNAttr::messageIntegrity)) {
      return 401;
    }
    const auto issued = nonces_.find(std::string(*nonce));
    if (issued == nonces_.end() || now_ - issued->second > 300) {
      return 438;
    }
    return TURNAuth::verifyMessageIntegrity(datagram, goodKey) ? 0 : 401;
  }

  void judgeRequest(Client& client, const TURNMessage& message, ByteView datagram) {
    int error = gateError(message, datagram);
    std::optional<std::uint32_t> lifetime;
    if (error != 0) {
      // It goes no further.
    } else if (message.method == TURNMethod::allocate) {
      const auto failed = client.failures.find(message.txID);
      if (client.held) {
        error = client.held->txID == message.txID ? 0 : 437;
        lifetime = 600;
      } else if (!valueOf(message, TURNAttr::requestedTransport, isUDPTransport)) {
        error = 442;
      } else if (failed != client.failures.end() && failed->second >= now_) {
        error = 500;
      } else {
        sweep();
        client.opening = Client::Opening{message.txID};
        if ((script_->faults & noThread) != 0 && bodies_.empty()) {
          script_->concluded.emplace_back(client.endpoint.port, false);
        }
        return;
      }
    } else if (message.method == TURNMethod::refresh) {
      error = client.held ? 0 : 437;
      lifetime = valueOf(message, TURNAttr::lifetime, decodeLifetime).value_or(600);
      lifetime = std::min(*lifetime, 3600U);
      if (lifetime == 0U) {
        client.held.reset();
      } else if (client.held) {
        client.held->expiry = now_ + *lifetime;
      }
    } else if (message.method == TURNMethod::channelBind) {
      const auto number = valueOf(message, TURNAttr::channelNumber, decodeChannelNumber);
      const auto peer = valueOf(message, TURNAttr::xorPeerAddress, decodeXorAddress);
      if (!client.isAlive(now_)) {
        error = 437;
      } else if (number && *number >> 14 == 1 && peer) {
        client.held->channels[*number] = *peer;
      } else {
        error = 400;
      }
    } else if (message.method == TURNMethod::createPermission) {
      error = client.isAlive(now_) ? 0 : 437;
    } else {
      error = 400;
    }
    if (error != 0) {
      lifetime.reset();
    }
    client.owed.push_back({message.method, message.txID, error, lifetime});
  }

  void sweep() {
    for (Client& client : clients_) {
      if (client.held && client.held->expiry + 300 < now_) {
        client.held.reset();
      }
    }
  }

  // Learns the nonce of a challenge.
  Told read(const Bytes& datagram) {
    if (datagram[0] >> 6 == 1) {
      const ByteView payload = ByteView(datagram).subspan(4);
      require(payload.size() == readUInt16(datagram, 2), "the length of ChannelData is true");
      return {readUInt16(datagram, 0), {}, 0, {}, {joined({payload})}};
    }
    const TURNMessage message = TURNMessage::decode(datagram).value();
    if (message.klass == TURNClass::indication) {
      const Endpoint peer = valueOf(message, TURNAttr::xorPeerAddress, decodeXorAddress).value();
      const Bytes payload = joined({message.first(TURNAttr::data).value()});
      return {message.method, {}, 0, {}, {payload, peer}};
    }
    const int error = valueOf(message, TURNAttr::errorCode, decodeErrorCode).value_or(0);
    require(message.klass == (error == 0 ? TURNClass::successResponse : TURNClass::errorResponse),
            "an answer is a success or holds an error");
    if (const auto nonce = valueOf(message, TURNAttr::nonce, decodeNonce)) {
      latestNonce_ = *nonce;
      require(nonces_.emplace(latestNonce_, now_).second && (error == 401 || error == 438),
              "a challenge holds a new nonce");
    } else {
      require(TURNAuth::verifyMessageIntegrity(datagram, goodKey), "an answer is signed");
    }
    return {message.method, message.txID, error,
            valueOf(message, TURNAttr::lifetime, decodeLifetime)};
  }

  // What must hold between bursts.
  void check() {
    std::size_t held = 0;
    for (Client& client : clients_) {
      std::vector<Told> told;
      for (const Bytes& datagram : client.received()) {
        told.push_back(read(datagram));
      }
      require(told == std::exchange(client.owed, {}), "just what is owed comes, in order");
      require(
          std::exchange(script_->sent[client.endpoint.port], {}) == std::exchange(client.due, {}),
          "just what a live allocation allows is relayed, in order");

      const Allocation* const allocation = access_.allocation(client.endpoint);
      require((allocation != nullptr) == client.held.has_value() &&
                  (allocation == nullptr || allocation->lifetimeExpiry == client.held->expiry),
              "an allocation just where there must be one");
      require(script_->live.contains(client.endpoint.port) == client.held.has_value(),
              "a relay just as long as its allocation");
      held += client.held ? 1 : 0;
    }
    require(!script_->concluded.empty() || script_->relays == held, "no relay outlives its use");
  }

  Input& input_;
  std::uint64_t now_ = 0;  // the server's clock, in seconds
  std::uint64_t nextSweep_ = 30;
  unsigned floods_ = 0;
  const std::shared_ptr<Script> script_ = std::make_shared<Script>();
  std::deque<std::function<void()>> bodies_;  // of the openings' threads
  std::deque<Bytes> burst_;
  std::array<Client, 4> clients_;
  std::map<std::string, std::uint64_t> nonces_;  // all that were ever issued, and when
  std::string latestNonce_;

  TURNServer server_{credentials, credentials.realm, script_, false,
                     [this] { return (123 + now_) * 1'000'000'000; }};
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
  // loop, l only runs one, a asks, n with a new transaction, b binds a channel, B another one to
  // the same peer and R the same one to another peer, r refreshes, z with lifetime zero, k signs
  // with another key, c changes on the way, s takes the first nonce, i, d and p are data, f is a
  // flood, e the relay's end, x, y and t have openings fail and w succeed, T turns the loop, the
  // others let time pass.
  std::istringstream letters(
      "o0405 l04 a08000000 A18000000 n08200000 b0803000203000440030000 B0803000203000440020000 "
      "R0803000213000440030000 r08020000 "
      "z08020001010400000000 k08020600 c08020700001E01 s08020200 i881700020302026869 "
      "d0106400300026869 p02001005 f06 e02000000 x0303 y0304 t0308 w0300 T05 "
      "10000 20002 30003 40004 70007 90009");
  std::map<char, Bytes> steps;
  for (std::string step; letters >> step;) {
    for (std::size_t at = 1; at + 1 < step.size(); at += 2) {
      const int octet = std::stoi(step.substr(at, 2), nullptr, 16);
      steps[step[0]].push_back(static_cast<std::uint8_t>(octet));
    }
  }
  std::vector<Bytes> all;
  for (const std::string_view text :
       {"aobidprzidpaoidp", "abidpaidpfAoidp", "aob9idprksridp972idpao", "xao3wano4aidp",
        "alAidpa3Abocidp", "xanidpwooideidpao", "yaoidpwnoidp", "taoidpwnoidp", "aAtnw2zo",
        "affoaidp", "aobRpBbpidp", "Ao97T1aaoaidpn"}) {
    Bytes& seed = all.emplace_back();
    for (const char letter : text) {
      append(seed, steps.at(letter));
    }
  }
  return all;
}

}  // namespace fuzz
}  // namespace zk
