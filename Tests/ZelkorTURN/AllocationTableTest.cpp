// Who may ask what of the server, and what is answered: at the table's interface, where a clock
// can be set and every attribute be written.

#include <array>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorTURN/Allocation.h"

namespace zk {
namespace {

using test::hex;

using Attributes = std::vector<std::pair<std::uint16_t, Bytes>>;
using Lines = std::vector<std::string>;

Bytes xorAddress(const char* ip, std::uint16_t port) {
  return test::copyOf(*TURNAttributes::encodeXorAddress(ip, port));
}

// One answer, taken apart.
struct Answer {
  TURNMessage message;
  std::vector<int> types{};
  int error = 0;
  std::string phrase{};
  bool isSigned = false;  // by the configured credentials, in its last attribute

  std::optional<std::uint32_t> lifetime() const {
    const auto value = message.first(TURNAttr::lifetime);
    return value ? TURNAttributes::decodeLifetime(*value) : std::nullopt;
  }
  std::string nonce() const { return test::textOf(message.first(TURNAttr::nonce).value()); }
};

// A table with one client, a clock that the test sets, and an opening that does as it says.
class Table : public testing::Test {
 protected:
  Table() {
    table_.debugLog = [this](std::string_view line) { log_.emplace_back(line); };
  }

  Answer handle(const TURNMessage& message, const Bytes& raw) {
    log_.clear();
    auto outcome = table_.handle(message, client_, raw, credentials_, now_);
    if (const auto* const pending = std::get_if<PendingAllocate>(&outcome)) {
      ++openings_;
      EXPECT_EQ(pending->client, client_);
      outcome = table_.conclude(*pending, opened_, now_);
    }
    Answer answer{std::get<TURNMessage>(outcome)};
    EXPECT_EQ(answer.message.method, message.method);
    EXPECT_EQ(answer.message.txID, message.txID);
    for (const TURNAttribute attribute : answer.message.attributes()) {
      answer.types.push_back(attribute.type);
    }
    if (const auto value = answer.message.first(TURNAttr::errorCode)) {
      answer.error = TURNAttributes::decodeErrorCode(*value).value();
      answer.phrase = test::textOf(value->subspan(4));
    }
    EXPECT_EQ(answer.message.klass,
              answer.error == 0 ? TURNClass::successResponse : TURNClass::errorResponse);
    answer.isSigned = answer.types.back() == TURNAttr::messageIntegrity &&
                      TURNAuth::verifyMessageIntegrity(answer.message.encode(), key_);
    return answer;
  }

  // A request with a transaction ID that ends in `id`, complete and signed with the right key.
  TURNMessage request(std::uint16_t method, std::uint8_t id, const Attributes& attributes = {}) {
    TURNMessage message(method, TURNClass::request, {0xAB, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, id});
    for (const auto& [type, value] : attributes) {
      message.append(type, value);
    }
    message.append(TURNAttr::username, bytesOf("alice"));
    message.append(TURNAttr::realm, bytesOf("zk.test"));
    message.append(TURNAttr::nonce, bytesOf(nonce_));
    TURNAuth::appendMessageIntegrity(message, key_);
    return message;
  }
  Answer ask(const TURNMessage& message) { return handle(message, message.encode()); }

  // The same with a nonce of now, and an answer that must be signed.
  Answer askFreshly(std::uint16_t method, std::uint8_t id, const Attributes& attributes = {}) {
    nonce_ = challengeNonce();
    const Answer answer = ask(request(method, id, attributes));
    EXPECT_TRUE(answer.isSigned);
    return answer;
  }
  std::string challengeNonce() {
    return ask(TURNMessage(TURNMethod::allocate, TURNClass::request, {})).nonce();
  }
  Answer allocate(std::uint8_t id) {
    return askFreshly(TURNMethod::allocate, id, {{TURNAttr::requestedTransport, {17, 0, 0, 0}}});
  }
  const Allocation* allocation() { return table_.allocation(client_); }

  const std::vector<int> challenge_{TURNAttr::errorCode, TURNAttr::realm, TURNAttr::nonce};
  const Credentials credentials_{"alice", "zk.test", "wonderland"};
  const TURNAuth::LongTermKey key_ = TURNAuth::longTermKey("alice", "zk.test", "wonderland");
  AllocationTable table_{"zk.test"};
  FiveTuple client_{"127.0.0.1", 5000};
  std::uint32_t now_ = 1000;
  std::optional<RelayedAddress> opened_ = RelayedAddress{"203.0.113.5", 40001};
  int openings_ = 0;
  std::string nonce_ = "none yet";
  Lines log_;  // of the latest message
};

// ---- The gate ---------------------------------------------------------------------------------

TEST_F(Table, ChallengesWhoeverLeavesOutOneOfFourAttributes) {
  for (unsigned have = 0; have < 15; ++have) {
    TURNMessage message(TURNMethod::allocate, TURNClass::request, {1});
    const auto has = [&](unsigned bit) { return (have >> bit & 1) != 0; };
    for (unsigned bit = 0; bit < 4; ++bit) {
      constexpr std::uint16_t types[] = {TURNAttr::messageIntegrity, TURNAttr::username,
                                         TURNAttr::realm, TURNAttr::nonce};
      if (has(bit)) {
        message.append(types[bit], Bytes(20, 0xC3));
      }
    }
    const Answer answer = ask(message);
    EXPECT_EQ(answer.error, 401);
    EXPECT_EQ(answer.phrase, "Unauthorized");
    EXPECT_EQ(answer.types, challenge_);
    EXPECT_EQ(test::textOf(*answer.message.first(TURNAttr::realm)), "zk.test");
    EXPECT_EQ(answer.nonce().size(), 32U);
    EXPECT_EQ(log_, Lines{fmt::format("auth: no MESSAGE-INTEGRITY (hasMI={} hasUsername={} "
                                      "hasRealm={} hasNonce={}) → 401",
                                      has(0), has(1), has(2), has(3))});
  }
}

TEST_F(Table, ChecksNonceTextThenBookThenAgeThenIntegrity) {
  nonce_ = challengeNonce();
  const std::string good = nonce_;
  const struct {
    std::string nonce;
    bool isGenuine;
    std::uint32_t now;
    int error;
    const char* line;
  } cases[] = {
      {good + "\xC3", false, 1000, 401, "auth: nonce attribute missing or non-ASCII → 401"},
      {std::string(32, '0'), false, 1000, 438,
       "auth: nonce unknown (not in issued set, 2 active) → 438"},
      {"", false, 1000, 438, "auth: nonce unknown (not in issued set, 3 active) → 438"},
      {good, false, 1300, 401, "auth: MI verify FAILED → 401"},
      {good, true, 1300, 437, "auth: OK (method=0x004)"},
      {good, true, 1301, 438, "auth: nonce TTL expired (issued 301s ago) → 438"},
      // That challenge has pruned the book.
      {good, true, 1301, 438, "auth: nonce unknown (not in issued set, 2 active) → 438"}};
  for (const auto& c : cases) {
    now_ = c.now;
    nonce_ = c.nonce;
    const TURNMessage message = request(TURNMethod::refresh, 9);
    Bytes raw = message.encode();
    raw[raw.size() - 1] ^= c.isGenuine ? 0 : 1;
    const Answer answer = handle(message, raw);
    EXPECT_EQ(answer.error, c.error) << c.line;
    EXPECT_EQ(log_, Lines{c.line});
    if (c.error == 437) {
      EXPECT_TRUE(answer.isSigned);
      continue;
    }
    EXPECT_EQ(answer.phrase, c.error == 401 ? "Unauthorized" : "Stale Nonce");
    EXPECT_EQ(answer.types, challenge_);
    EXPECT_NE(answer.nonce(), good);
  }
}

// Names are not looked at, and every class is treated like a request.
TEST_F(Table, TrustsTheKeyAndTheOctetsAsReceived) {
  nonce_ = challengeNonce();
  client_.clientPort = 6000;  // a nonce is anybody's
  for (const TURNClass klass : {TURNClass::request, TURNClass::indication,
                                TURNClass::successResponse, TURNClass::errorResponse}) {
    TURNMessage message(TURNMethod::refresh, klass, {7});
    EXPECT_EQ(ask(message).error, 401);
    message.append(TURNAttr::username, bytesOf("bob"));
    message.append(TURNAttr::realm, {});
    message.append(TURNAttr::nonce, bytesOf(nonce_));
    TURNAuth::appendMessageIntegrity(message, key_);
    EXPECT_EQ(ask(message).error, 437);
    Bytes tampered = message.encode();
    tampered[24] ^= 1;  // in the name
    EXPECT_EQ(handle(message, tampered).error, 401);
  }
  for (const std::uint16_t method : std::to_array<std::uint16_t>({1, 6, 7, 0xA, 0xFFF})) {
    EXPECT_EQ(askFreshly(method, 1).phrase, "Bad Request");
    EXPECT_EQ(log_, Lines{fmt::format("auth: OK (method=0x{:03x})", method)});
  }
}

// ---- Allocate and Refresh ---------------------------------------------------------------------

TEST_F(Table, AllocatesOnceAndAnswersARetransmissionTheSame) {
  nonce_ = challengeNonce();
  const TURNMessage message = request(TURNMethod::allocate, 1,
                                      {{TURNAttr::lifetime, hex("0000003C")},  // not looked at
                                       {TURNAttr::requestedTransport, {17, 0, 0, 0}}});
  for (const std::uint32_t now : {1000U, 1030U, 1300U}) {
    now_ = now;
    const Answer answer = ask(message);
    EXPECT_TRUE(answer.isSigned);
    EXPECT_EQ(answer.types,
              (std::vector<int>{TURNAttr::xorRelayedAddress, TURNAttr::xorMappedAddress,
                                TURNAttr::lifetime, TURNAttr::messageIntegrity}));
    EXPECT_EQ(test::copyOf(*answer.message.first(TURNAttr::xorRelayedAddress)),
              xorAddress("203.0.113.5", 40001));
    EXPECT_EQ(test::copyOf(*answer.message.first(TURNAttr::xorMappedAddress)),
              xorAddress("127.0.0.1", 5000));
    EXPECT_EQ(answer.lifetime(), 600U);
    Lines lines{"auth: OK (method=0x003)"};
    if (now > 1000) {
      lines.emplace_back("allocate retransmit (same txID) → resend success");
    }
    EXPECT_EQ(log_, lines);
    EXPECT_EQ(allocation()->lifetimeExpiry, 1600U);
  }
  EXPECT_EQ(openings_, 1);
  now_ = 9000;  // long expired, but still there
  EXPECT_EQ(allocate(2).phrase, "Allocation Mismatch");
  client_.clientPort = 5001;
  EXPECT_EQ(allocate(2).error, 0);
}

TEST_F(Table, AllocatesNothingButUDP) {
  for (const Attributes& attributes :
       {Attributes{}, Attributes{{TURNAttr::requestedTransport, {6, 0, 0, 0}}},
        Attributes{{TURNAttr::requestedTransport, {}}},
        Attributes{{TURNAttr::requestedTransport, {6, 0, 0, 0}},
                   {TURNAttr::requestedTransport, {17, 0, 0, 0}}}}) {
    const Answer answer = askFreshly(TURNMethod::allocate, 1, attributes);
    EXPECT_EQ(answer.error, 442);
    EXPECT_EQ(answer.phrase, "Unsupported Transport Protocol");
  }
  EXPECT_EQ(openings_, 0);
}

// For how long the server's tests show.
TEST_F(Table, RemembersTheLatestFailures) {
  const auto errorOf = [&](std::uint8_t id) {
    return ask(request(TURNMethod::allocate, id, {{TURNAttr::requestedTransport, {17, 0, 0, 0}}}))
        .error;
  };
  nonce_ = challengeNonce();
  opened_.reset();
  EXPECT_EQ(errorOf(1), 500);
  EXPECT_EQ(errorOf(2), 500);
  EXPECT_EQ(allocation(), nullptr);
  for (std::size_t i = 0; i < AllocationTable::maxFailures - 1; ++i) {
    table_.conclude({{"127.0.0.1", 1}, {}, key_}, {}, now_);
  }
  opened_ = RelayedAddress{"203.0.113.5", 1};
  table_.prune(now_ + 40);
  EXPECT_EQ(errorOf(2), 500);
  EXPECT_EQ(errorOf(1), 0);
}

TEST_F(Table, RefreshesForTheTimeAskedWithinBounds) {
  EXPECT_EQ(askFreshly(TURNMethod::refresh, 1).error, 437);
  allocate(2);
  const std::pair<Attributes, std::uint32_t> cases[] = {
      {{}, 600},
      {{{TURNAttr::lifetime, hex("00000001")}}, 1},
      {{{TURNAttr::lifetime, hex("00000E10")}}, 3600},
      {{{TURNAttr::lifetime, hex("00000E11")}}, 3600},
      {{{TURNAttr::lifetime, hex("FFFFFFFF")}}, 3600},
      {{{TURNAttr::lifetime, hex("0001")}}, 600},
      {{{TURNAttr::lifetime, hex("00000064 00")}}, 100},
      {{{TURNAttr::lifetime, hex("00000064")}, {TURNAttr::lifetime, hex("00000000")}}, 100}};
  for (const auto& [attributes, granted] : cases) {
    now_ += 10'000;  // expired every time, and revived
    const Answer answer = askFreshly(TURNMethod::refresh, 3, attributes);
    EXPECT_EQ(answer.lifetime(), granted);
    EXPECT_EQ(answer.types, (std::vector<int>{TURNAttr::lifetime, TURNAttr::messageIntegrity}));
    EXPECT_EQ(allocation()->lifetimeExpiry, now_ + granted);
  }
  EXPECT_EQ(askFreshly(TURNMethod::refresh, 4, {{TURNAttr::lifetime, Bytes(4)}}).lifetime(), 0U);
  EXPECT_EQ(allocation(), nullptr);
  EXPECT_EQ(askFreshly(TURNMethod::refresh, 5).error, 437);
}

// ---- CreatePermission and ChannelBind ---------------------------------------------------------

const Bytes ipv6Peer = hex("0002A147 0113A9FAA5D3F179BC25F4B5BED2B9D9");

TEST_F(Table, PermitsEveryReadablePeerByAddressAloneUpToALimit) {
  allocate(1);
  const Answer answer = askFreshly(TURNMethod::createPermission, 2,
                                   {{TURNAttr::xorPeerAddress, xorAddress("192.0.2.1", 1)},
                                    {TURNAttr::xorPeerAddress, ipv6Peer},
                                    {TURNAttr::xorPeerAddress, Bytes(7)},
                                    {TURNAttr::xorMappedAddress, xorAddress("192.0.2.9", 1)},
                                    {TURNAttr::xorPeerAddress, xorAddress("192.0.2.2", 2)},
                                    {TURNAttr::xorPeerAddress, xorAddress("192.0.2.1", 3)}});
  EXPECT_EQ(answer.types, std::vector<int>{TURNAttr::messageIntegrity});
  EXPECT_EQ(allocation()->permissions, (std::set<std::string>{"192.0.2.1", "192.0.2.2"}));
  Attributes peers;
  for (std::size_t i = 0; i < Allocation::maxPermissions; ++i) {
    peers.emplace_back(TURNAttr::xorPeerAddress,
                       xorAddress(fmt::format("10.0.{}.{}", i / 256, i % 256).c_str(), 1));
  }
  EXPECT_EQ(askFreshly(TURNMethod::createPermission, 3, peers).error, 0);
  EXPECT_EQ(allocation()->permissions.size(), Allocation::maxPermissions);
}

TEST_F(Table, BindsChannelsAndRefusesInAFixedOrder) {
  allocate(1);
  const auto peer = std::pair{TURNAttr::xorPeerAddress, xorAddress("192.0.2.1", 7)};
  const auto channel = [](const char* digits) {
    return std::pair{TURNAttr::channelNumber, hex(digits)};
  };
  const std::string missing = "Bad Request: missing CHANNEL-NUMBER";
  const std::string outOfRange = "Bad Request: channel number out of range";
  const std::string noPeer = "Bad Request: missing XOR-PEER-ADDRESS";
  const std::pair<Attributes, std::string> refused[] = {
      {{}, missing},
      {{peer}, missing},
      {{channel("40"), peer}, missing},
      {{channel("40"), channel("4001 0000"), peer}, missing},  // only the first counts
      {{channel("3FFF 0000"), peer}, outOfRange},
      {{channel("8000 0000"), peer}, outOfRange},
      {{channel("FFFF 0000")}, outOfRange},
      {{channel("4001 0000")}, noPeer},
      {{channel("4001 0000"), {TURNAttr::xorPeerAddress, ipv6Peer}, peer}, noPeer}};
  for (const auto& [attributes, phrase] : refused) {
    const Answer answer = askFreshly(TURNMethod::channelBind, 2, attributes);
    EXPECT_EQ(answer.error, 400);
    EXPECT_EQ(answer.phrase, phrase);
  }
  EXPECT_TRUE(allocation()->channels.empty());
  EXPECT_TRUE(allocation()->permissions.empty());
}

// Of several channels of a peer the lowest counts; a channel that changes hands is forgotten where
// it was.
TEST_F(Table, FindsTheLowestChannelOfAPeer) {
  allocate(1);
  const struct {
    const char* channel;
    const char* ip;
    std::uint16_t port;
    const char* found;  // for ports 1 and 2 of 192.0.2.1, and port 1 of 192.0.2.2
  } steps[] = {{"7FFF", "192.0.2.1", 1, "7fff none none"},
               {"4001 FFFF", "192.0.2.1", 1, "4001 none none"},
               {"5000 0000", "192.0.2.1", 1, "4001 none none"},
               {"4001 0000", "192.0.2.1", 2, "5000 4001 none"},
               {"5000 0000", "192.0.2.2", 1, "7fff 4001 5000"},
               {"7FFF 0000", "192.0.2.1", 2, "none 4001 5000"},
               {"4000 0000", "192.0.2.2", 1, "none 4001 4000"},
               {"4000 0000", "192.0.2.2", 1, "none 4001 4000"}};  // a refresh
  for (const auto& [channel, ip, port, wanted] : steps) {
    const Answer answer = askFreshly(TURNMethod::channelBind, 3,
                                     {{TURNAttr::channelNumber, hex(channel)},
                                      {TURNAttr::xorPeerAddress, xorAddress(ip, port)}});
    EXPECT_EQ(answer.types, std::vector<int>{TURNAttr::messageIntegrity});
    std::string found;
    for (const auto& [peerIP, peerPort] :
         {std::pair("192.0.2.1", 1), {"192.0.2.1", 2}, {"192.0.2.2", 1}}) {
      const auto number = allocation()->channelOf(peerIP, static_cast<std::uint16_t>(peerPort));
      found += (found.empty() ? "" : " ") + (number ? fmt::format("{:04x}", *number) : "none");
    }
    EXPECT_EQ(found, wanted) << channel;
  }
  EXPECT_FALSE(allocation()->channelOf("proxy.example", 1));
  EXPECT_EQ(allocation()->permissions, (std::set<std::string>{"192.0.2.1", "192.0.2.2"}));
}

TEST_F(Table, LetsPeersInUntilTheLastSecondOfTheAllocation) {
  const Attributes valid{{TURNAttr::channelNumber, hex("4001 0000")},
                         {TURNAttr::xorPeerAddress, xorAddress("192.0.2.1", 1)}};
  const auto errors = [&] {
    return std::pair{askFreshly(TURNMethod::createPermission, 1, valid).error,
                     askFreshly(TURNMethod::channelBind, 2, valid).error};
  };
  EXPECT_EQ(errors(), (std::pair{437, 437}));
  allocate(1);
  now_ = allocation()->lifetimeExpiry;
  EXPECT_EQ(errors(), (std::pair{0, 0}));
  ++now_;
  EXPECT_EQ(errors(), (std::pair{437, 437}));
}

}  // namespace
}  // namespace zk
