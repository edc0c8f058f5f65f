// Who may ask what of the server, and what is answered.

#include <set>

#include <fmt/format.h>

#include "ZelkorTURN/ServerFixture.h"

namespace zk::test {
namespace {

using Types = std::vector<int>;

const std::string unauthorized = "401 Unauthorized";
const std::string mismatch = "437 Allocation Mismatch";
const std::string stale = "438 Stale Nonce";
const Types onlySigned{TURNAttr::messageIntegrity};

/// Number and phrase; empty for a success.
std::string errorOf(const TURNAnswer& answer) {
  const TURNMessage& message = answer.message.value();
  const auto value = message.first(TURNAttr::errorCode);
  EXPECT_EQ(message.klass, value ? TURNClass::errorResponse : TURNClass::successResponse);
  return value ? fmt::format("{} {}", answer.errorCode(), textOf(value->subspan(4))) : "";
}

Types typesOf(const TURNAnswer& answer) {
  Types types;
  for (const TURNAttribute attribute : answer.message.value().attributes()) {
    types.push_back(attribute.type);
  }
  return types;
}

class TURNRequestTest : public ServerFixture {
 protected:
  /// With a nonce of now, and an answer that must be signed.
  TURNAnswer ask(std::uint16_t method, const Attributes& attributes = {}) {
    const TURNAnswer answer = client->authenticatedRequest(request(*client, method, attributes));
    EXPECT_TRUE(answer.integrityVerified);
    EXPECT_EQ(answer.message.value().method, method);
    return answer;
  }
  TURNAnswer bind(const char* channel, const Endpoint& to) {
    return ask(TURNMethod::channelBind, {{TURNAttr::channelNumber, hex(channel)},
                                         {TURNAttr::xorPeerAddress, xorAddress(to)}});
  }
  /// Whether the allocation takes peers, in both ways.
  bool isAlive() {
    const std::string error = errorOf(client->createPermission(peer));
    EXPECT_TRUE(error.empty() || error == mismatch) << error;
    EXPECT_EQ(errorOf(bind("4001", peer)), error);
    return error.empty();
  }
  void expectChallenge(const TURNAnswer& answer, const std::string& error) {
    EXPECT_EQ(errorOf(answer), error);
    EXPECT_EQ(typesOf(answer), (Types{TURNAttr::errorCode, TURNAttr::realm, TURNAttr::nonce}));
    EXPECT_EQ(textOf(*answer.message->first(TURNAttr::realm)), "zkturnd.test");
    EXPECT_TRUE(nonces.insert(textOf(*answer.message->first(TURNAttr::nonce))).second);
  }

  const std::unique_ptr<TURNClient> client = newClient();
  std::set<std::string> nonces;  // of all challenges
};

// ---- The gate ---------------------------------------------------------------------------------

TEST_F(TURNRequestTest, WhoeverLeavesOutOneOfFourAttributesIsChallenged) {
  constexpr std::uint16_t types[] = {TURNAttr::messageIntegrity, TURNAttr::username,
                                     TURNAttr::realm, TURNAttr::nonce};
  for (unsigned have = 0; have < 15; ++have) {
    TURNMessage message = client->makeRequest(TURNMethod::allocate);
    const auto has = [&](unsigned bit) { return (have >> bit & 1) != 0; };
    for (unsigned bit = 0; bit < 4; ++bit) {
      if (has(bit)) {
        message.append(types[bit], Bytes(20, 0xC3));
      }
    }
    expectChallenge(client->request(message), unauthorized);
    EXPECT_EQ(log.lines("auth: ").back(),
              fmt::format("auth: no MESSAGE-INTEGRITY (hasMI={} hasUsername={} hasRealm={} "
                          "hasNonce={}) → 401",
                          has(0), has(1), has(2), has(3)));
  }
}

TEST_F(TURNRequestTest, NonceTextThenBookThenAgeThenIntegrityIsChecked) {
  TURNClient impostor(server.boundPort(), {.password = "looking-glass", .realm = "zkturnd.test"});
  const std::string good = client->nonce();
  const struct {
    TURNClient& asker;
    std::string nonce;
    std::uint64_t wait;  // seconds before
    std::string error;
    const char* line;
  } cases[] = {
      {impostor, good + "\xC3", 0, unauthorized,
       "auth: nonce attribute missing or non-ASCII → 401"},
      {impostor, std::string(32, '0'), 0, stale,
       "auth: nonce unknown (not in issued set, 2 active) → 438"},
      {impostor, "", 0, stale, "auth: nonce unknown (not in issued set, 3 active) → 438"},
      {impostor, good, 300, unauthorized, "auth: MI verify FAILED → 401"},
      {*client, good, 0, mismatch, "auth: OK (method=0x004)"},
      {*client, good, 1, stale, "auth: nonce TTL expired (issued 301s ago) → 438"},
      // That challenge has pruned the book.
      {*client, good, 0, stale, "auth: nonce unknown (not in issued set, 2 active) → 438"},
      // In time without any.
      {*client, good, 900, stale, "auth: nonce unknown (not in issued set, 0 active) → 438"}};
  for (const auto& c : cases) {
    advance(c.wait);
    for (int i = 0; i < 2; ++i) {  // for the loop to look at its clock
      log.clear();
      client->send(Bytes{0xFF});
      ASSERT_TRUE(log.waitFor("kind=unknown"));
    }
    c.asker.setNonce(c.nonce);
    const TURNAnswer answer = c.asker.request(signedRequest(c.asker, TURNMethod::refresh));
    EXPECT_EQ(log.lines("auth: ").back(), c.line);
    if (c.error == mismatch) {
      EXPECT_EQ(errorOf(answer), mismatch);
      EXPECT_TRUE(answer.integrityVerified);
    } else {
      expectChallenge(answer, c.error);
    }
  }
}

// Names are not looked at, a nonce is anybody's, and every class is treated like a request.
TEST_F(TURNRequestTest, TheKeyAndTheOctetsAsReceivedAreTrusted) {
  TURNClient other(server.boundPort());
  const auto key = TURNAuth::longTermKey("alice", "zkturnd.test", "wonderland");
  for (const TURNClass klass : {TURNClass::request, TURNClass::indication,
                                TURNClass::successResponse, TURNClass::errorResponse}) {
    TURNMessage message(TURNMethod::refresh, klass, client->freshTransaction());
    expectChallenge(other.request(message), unauthorized);
    message.append(TURNAttr::username, bytesOf("bob"));
    message.append(TURNAttr::realm, {});
    message.append(TURNAttr::nonce, bytesOf(client->nonce()));
    TURNAuth::appendMessageIntegrity(message, key);
    EXPECT_EQ(errorOf(other.request(message)), mismatch);
    Bytes tampered = message.encode();
    tampered[24] ^= 1;  // in the name
    expectChallenge(other.request(*TURNMessage::decode(tampered)), unauthorized);
  }
  for (const std::uint16_t method : std::to_array<std::uint16_t>({1, 6, 7, 0xA, 0xFFF})) {
    EXPECT_EQ(errorOf(ask(method)), "400 Bad Request");
  }
}

// ---- Allocate and Refresh ---------------------------------------------------------------------

TEST_F(TURNRequestTest, ARetransmittedAllocateGetsTheSameAnswerAndNothingElse) {
  const TURNMessage message =
      signedRequest(*client, TURNMethod::allocate,
                    {{TURNAttr::lifetime, hex("0000003C")}, udp[0]});  // that is not looked at
  for (const std::uint64_t wait : {0U, 30U, 270U}) {
    advance(wait);
    const TURNAnswer answer = client->request(message);
    EXPECT_TRUE(answer.success());
    EXPECT_EQ(typesOf(answer), (Types{TURNAttr::xorRelayedAddress, TURNAttr::xorMappedAddress,
                                      TURNAttr::lifetime, TURNAttr::messageIntegrity}));
    EXPECT_EQ(copyOf(*answer.message->first(TURNAttr::xorRelayedAddress)),
              xorAddress(endpointAt("192.0.2.10", 7000)));
    EXPECT_EQ(copyOf(*answer.message->first(TURNAttr::xorMappedAddress)),
              xorAddress(endpointAt("127.0.0.1", client->localPort())));
    EXPECT_EQ(answer.lifetime(), 600U);
  }
  EXPECT_EQ(log.count("allocate retransmit (same txID) → resend success"), 2U);
  EXPECT_EQ(factory->made(), 1U);
  advance(300);
  EXPECT_TRUE(isAlive());
  advance(1);
  EXPECT_FALSE(isAlive());
  EXPECT_EQ(errorOf(ask(TURNMethod::allocate, udp)), mismatch) << "expired, but still there";
}

TEST_F(TURNRequestTest, NothingButUDPIsAllocated) {
  const std::pair<std::uint16_t, Bytes> tcp{TURNAttr::requestedTransport, {6, 0, 0, 0}};
  for (const Attributes& attributes :
       {Attributes{}, {tcp}, {{TURNAttr::requestedTransport, {}}}, {tcp, udp[0]}}) {
    EXPECT_EQ(errorOf(ask(TURNMethod::allocate, attributes)), "442 Unsupported Transport Protocol");
  }
  EXPECT_EQ(factory->made(), 0U);
}

TEST_F(TURNRequestTest, ARefreshRevivesForTheTimeAskedWithinBounds) {
  EXPECT_EQ(errorOf(ask(TURNMethod::refresh)), mismatch);
  EXPECT_FALSE(isAlive());
  ASSERT_TRUE(client->allocate().success());
  const auto lifetime = [](const char* digits) {
    return std::pair{TURNAttr::lifetime, hex(digits)};
  };
  const std::pair<Attributes, std::uint32_t> cases[] = {
      {{}, 600},
      {{lifetime("00000001")}, 1},
      {{lifetime("00000E10")}, 3600},
      {{lifetime("00000E11")}, 3600},
      {{lifetime("80000000")}, 3600},
      {{lifetime("000064")}, 600},
      {{lifetime("00000064 00")}, 100},
      {{lifetime("00000064"), lifetime("00000000")}, 100}};
  for (const auto& [attributes, granted] : cases) {
    const TURNAnswer answer = ask(TURNMethod::refresh, attributes);
    EXPECT_EQ(answer.lifetime(), granted);
    EXPECT_EQ(typesOf(answer), (Types{TURNAttr::lifetime, TURNAttr::messageIntegrity}));
    advance(granted);
    EXPECT_TRUE(isAlive()) << "in its last second";
    advance(1);
    EXPECT_FALSE(isAlive());
  }
  EXPECT_EQ(ask(TURNMethod::refresh, {lifetime("00000000")}).lifetime(), 0U);
  EXPECT_EQ(errorOf(ask(TURNMethod::refresh)), mismatch);
}

// What no client can see or wait for, at the table.
class AllocationTableTest : public testing::Test {
 protected:
  std::optional<TURNMessage> answerTo(const TURNMessage& message) {
    const Bytes raw = message.encode();
    const auto outcome = table.handle(TURNMessageView::decode(raw).value(), client, held, raw, 0);
    const auto* const answer = std::get_if<AllocationTable::Answer>(&outcome);
    return answer ? std::optional(answer->message) : std::nullopt;
  }
  TURNMessage signedRequest(std::uint16_t method, const Attributes& attributes) {
    TURNMessage message(method, TURNClass::request, {1});
    const TURNMessage challenge = answerTo(message).value();
    for (const auto& [type, value] : attributes) {
      message.append(type, value);
    }
    message.append(TURNAttr::username, {});
    message.append(TURNAttr::realm, {});
    message.append(TURNAttr::nonce, *challenge.first(TURNAttr::nonce));
    TURNAuth::appendMessageIntegrity(message, TURNAuth::longTermKey("alice", "r", "wonderland"));
    return message;
  }

  const Endpoint client{INADDR_LOOPBACK, 5000};
  Allocation* held = nullptr;
  AllocationTable table{{"alice", "r", "wonderland"}, "r"};
};

TEST_F(AllocationTableTest, PermissionsAreNotedByAddressAlone) {
  Allocation allocation;
  table.conclude({client, {9}}, {}, allocation, 0);
  held = &allocation;
  answerTo(signedRequest(TURNMethod::createPermission,
                         {{TURNAttr::xorPeerAddress, xorAddress(endpointAt("192.0.2.1", 1))},
                          {TURNAttr::xorMappedAddress, xorAddress(endpointAt("192.0.2.9", 1))},
                          {TURNAttr::xorPeerAddress, xorAddress(endpointAt("192.0.2.1", 3))}}));
  EXPECT_EQ(allocation.permissions(), std::set{0xC0000201U});
}

// For how long, the relays' tests show.
TEST_F(AllocationTableTest, SoManyOfTheLatestFailuresAreRememberedUntilTheyArePast) {
  const TURNMessage message =
      signedRequest(TURNMethod::allocate, {{TURNAttr::requestedTransport, {17, 0, 0, 0}}});
  const auto fails = [&](const TransactionID& txID) { table.concludeFailed({client, txID}, 0); };
  fails(message.txID);
  for (std::size_t i = 1; i < AllocationTable::maxFailures; ++i) {
    fails({2});
  }
  table.prune(AllocationTable::failureMemory);
  EXPECT_TRUE(answerTo(message)) << "the oldest is still among them";
  fails({2});
  EXPECT_FALSE(answerTo(message)) << "it is to be opened anew";
  fails(message.txID);
  EXPECT_TRUE(answerTo(message));
  table.prune(AllocationTable::failureMemory + 1);
  EXPECT_FALSE(answerTo(message));
}

// ---- CreatePermission and ChannelBind ---------------------------------------------------------

const Bytes ipv6Peer = hex("0002A147 0113A9FAA5D3F179BC25F4B5BED2B9D9");

TEST_F(TURNRequestTest, AnyNumberOfPermissionsIsAcknowledgedAndSoManyAreNoted) {
  ASSERT_TRUE(client->allocate().success());
  EXPECT_EQ(typesOf(ask(TURNMethod::createPermission)), onlySigned);
  EXPECT_EQ(
      typesOf(ask(TURNMethod::createPermission, {{TURNAttr::xorPeerAddress, ipv6Peer},
                                                 {TURNAttr::xorPeerAddress, Bytes(7)},
                                                 {TURNAttr::xorPeerAddress, xorAddress(peer)}})),
      onlySigned);
  Allocation allocation;
  for (std::uint32_t i = 0; i <= Allocation::maxPermissions; ++i) {
    allocation.permit({i});
  }
  EXPECT_EQ(allocation.permissions().size(), Allocation::maxPermissions);
}

TEST_F(TURNRequestTest, AChannelBindIsRefusedForTheFirstThingThatIsWrong) {
  ASSERT_TRUE(client->allocate().success());
  const auto goodPeer = std::pair{TURNAttr::xorPeerAddress, xorAddress(peer)};
  const auto channel = [](const char* digits) {
    return std::pair{TURNAttr::channelNumber, hex(digits)};
  };
  const std::string missing = "400 Bad Request: missing CHANNEL-NUMBER";
  const std::string outOfRange = "400 Bad Request: channel number out of range";
  const std::string noPeer = "400 Bad Request: missing XOR-PEER-ADDRESS";
  const std::pair<Attributes, std::string> refused[] = {
      {{}, missing},
      {{goodPeer}, missing},
      {{channel("40"), channel("4001 0000"), goodPeer}, missing},  // only the first counts
      {{channel("3FFF 0000"), goodPeer}, outOfRange},
      {{channel("8000 0000"), goodPeer}, outOfRange},
      {{channel("FFFF 0000")}, outOfRange},
      {{channel("4001 0000")}, noPeer},
      {{channel("4001 0000"), {TURNAttr::xorPeerAddress, ipv6Peer}, goodPeer}, noPeer}};
  for (const auto& [attributes, error] : refused) {
    EXPECT_EQ(errorOf(ask(TURNMethod::channelBind, attributes)), error);
  }
  client->sendChannelData(0x4001, bytes("x"));
  fence(*client);
  EXPECT_EQ(factory->relay(0)->sent(), "") << "nothing is bound";
}

// A channel that changes hands is forgotten where it was.
TEST_F(TURNRequestTest, APeerIsHeardOnTheLowestOfItsChannels) {
  ASSERT_TRUE(client->allocate().success());
  const Endpoint peers[] = {endpointAt("192.0.2.1", 1), endpointAt("192.0.2.1", 2),
                            endpointAt("192.0.2.2", 1)};
  const struct {
    const char* channel;
    int peer;
    const char* heard;  // each of the peers
  } steps[] = {{"7FFF", 0, "7fff none none "},      {"4001 FFFF", 0, "4001 none none "},
               {"5000 0000", 0, "4001 none none "}, {"4001 0000", 1, "5000 4001 none "},
               {"5000 0000", 2, "7fff 4001 5000 "}, {"7FFF 0000", 1, "none 4001 5000 "},
               {"4000 0000", 2, "none 4001 4000 "}, {"4000 0000", 2, "none 4001 4000 "}};
  for (const auto& [channel, number, wanted] : steps) {
    EXPECT_EQ(typesOf(bind(channel, peers[number])), onlySigned);
    factory->relay(0)->arrive(
        {{Bytes(), peers[0], {}}, {Bytes(), peers[1], {}}, {Bytes(), peers[2], {}}});
    std::string heard;
    for (int i = 0; i < 3; ++i) {
      const auto data = client->receiveData(patience);
      ASSERT_TRUE(data);
      heard += data->channel ? fmt::format("{:04x} ", *data->channel) : "none ";
    }
    EXPECT_EQ(heard, wanted) << channel;
  }
  for (const std::uint16_t channel :
       std::to_array<std::uint16_t>({0x4000, 0x4001, 0x5000, 0x7FFF})) {
    client->sendChannelData(channel, {});
  }
  fence(*client);
  EXPECT_EQ(factory->relay(0)->sent(), "→192.0.2.2:1 →192.0.2.1:2 →192.0.2.2:1 →192.0.2.1:2 ");
}

}  // namespace
}  // namespace zk::test
