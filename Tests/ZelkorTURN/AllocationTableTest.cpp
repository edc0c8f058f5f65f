#include <array>
#include <cerrno>
#include <functional>
#include <stdexcept>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/random.h>

#include "Support.h"
#include "ZelkorTURN/Allocation.h"

namespace {
bool randomSourceFails = false;
}

// In place of the system's, so that a test can make it fail.
extern "C" int getentropy(void* buffer, std::size_t length) {
  if (randomSourceFails || length > 256) {
    errno = EIO;
    return -1;
  }
  return getrandom(buffer, length, 0) == static_cast<ssize_t>(length) ? 0 : -1;
}

namespace zk {
namespace {

using test::hex;

// A provider that answers as the test says and counts.
struct ScriptedProvider final : TURNRelayProvider {
  std::function<RelayedAddress()> answer = [] { return RelayedAddress{"203.0.113.5", 40001}; };
  int asked = 0;
  RelayedAddress allocateRelay() override {
    ++asked;
    return answer();
  }
};

using Attributes = std::vector<std::pair<std::uint16_t, Bytes>>;

Bytes bytes(std::string_view text) {
  return test::copyOf(bytesOf(text));
}

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

// A table with one client and a clock that the test sets.
class Table : public testing::Test {
 protected:
  Table() {
    table_.debugLog = [this](std::string_view line) { log_.emplace_back(line); };
  }

  Answer handle(const TURNMessage& message, const Bytes& raw) {
    log_.clear();
    const auto answers = table_.handle(message, client_, raw, credentials_, now_);
    EXPECT_EQ(answers.size(), 1U);
    Answer answer{answers.at(0)};
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

  const Credentials credentials_{"alice", "zk.test", "wonderland"};
  const TURNAuth::LongTermKey key_ = TURNAuth::longTermKey("alice", "zk.test", "wonderland");
  const std::shared_ptr<ScriptedProvider> provider_ = std::make_shared<ScriptedProvider>();
  AllocationTable table_{provider_, "zk.test"};
  FiveTuple client_{"127.0.0.1", 5000};
  std::uint32_t now_ = 1000;
  std::string nonce_ = "none yet";
  std::vector<std::string> log_;  // of the latest message
};

using Lines = std::vector<std::string>;

// ---- The gate ---------------------------------------------------------------------------------

TEST_F(Table, ChallengesWhoeverLeavesOutOneOfFourAttributes) {
  for (unsigned have = 0; have < 15; ++have) {
    TURNMessage message(TURNMethod::allocate, TURNClass::request, {1});
    const std::pair<std::uint16_t, Bytes> all[] = {{TURNAttr::messageIntegrity, Bytes(20)},
                                                   {TURNAttr::username, bytes("alice")},
                                                   {TURNAttr::realm, bytes("zk.test")},
                                                   {TURNAttr::nonce, bytes("\xC3")}};
    std::array<const char*, 4> has{};
    for (std::size_t i = 0; i < has.size(); ++i) {
      has[i] = (have >> i & 1) != 0 ? "true" : "false";
      if (*has[i] == 't') {
        message.append(all[i].first, all[i].second);
      }
    }
    const Answer answer = ask(message);
    EXPECT_EQ(answer.error, 401);
    EXPECT_EQ(answer.phrase, "Unauthorized");
    EXPECT_EQ(answer.types,
              (std::vector<int>{TURNAttr::errorCode, TURNAttr::realm, TURNAttr::nonce}));
    EXPECT_EQ(test::textOf(*answer.message.first(TURNAttr::realm)), "zk.test");
    EXPECT_EQ(answer.nonce().size(), 32U);
    EXPECT_EQ(log_, Lines{fmt::format("auth: no MESSAGE-INTEGRITY (hasMI={} hasUsername={} "
                                      "hasRealm={} hasNonce={}) → 401",
                                      has[0], has[1], has[2], has[3])});
  }
}

TEST_F(Table, ChecksNonceTextThenBookThenAgeThenIntegrity) {
  nonce_ = challengeNonce();
  TURNMessage wrongPassword(TURNMethod::refresh, TURNClass::request, {9});
  const auto with = [&](const std::string& nonce) {
    TURNMessage message = wrongPassword;
    message.append(TURNAttr::username, bytesOf("alice"));
    message.append(TURNAttr::realm, bytesOf("zk.test"));
    message.append(TURNAttr::nonce, bytesOf(nonce));
    TURNAuth::appendMessageIntegrity(message, TURNAuth::longTermKey("alice", "zk.test", "wrong"));
    return message;
  };
  const std::string good = nonce_;
  const struct {
    std::string nonce;
    std::uint32_t now;
    int error;
    const char* phrase;
    const char* line;
  } cases[] = {
      {good + "\xC3", 1000, 401, "Unauthorized",
       "auth: nonce attribute missing or non-ASCII → 401"},
      {std::string(32, '0'), 1000, 438, "Stale Nonce",
       "auth: nonce unknown (not in issued set, 2 active) → 438"},
      {"", 1000, 438, "Stale Nonce", "auth: nonce unknown (not in issued set, 3 active) → 438"},
      {good, 1300, 401, "Unauthorized", "auth: MI verify FAILED → 401"}};
  for (const auto& c : cases) {
    now_ = c.now;
    const Answer answer = ask(with(c.nonce));
    EXPECT_EQ(answer.error, c.error) << c.line;
    EXPECT_EQ(answer.phrase, c.phrase);
    EXPECT_EQ(answer.types,
              (std::vector<int>{TURNAttr::errorCode, TURNAttr::realm, TURNAttr::nonce}));
    EXPECT_EQ(log_, Lines{c.line});
    EXPECT_NE(answer.nonce(), good);
  }
}

TEST_F(Table, TakesANonceForThreeHundredSecondsFromAnyClientAnyNumberOfTimes) {
  nonce_ = challengeNonce();
  now_ = 1300;
  EXPECT_EQ(ask(request(TURNMethod::refresh, 1)).error, 437);
  EXPECT_EQ(log_, Lines{"auth: OK (method=0x004)"});
  client_.clientPort = 6000;
  EXPECT_EQ(ask(request(TURNMethod::refresh, 2)).error, 437);
  now_ = 1301;
  const Answer stale = ask(request(TURNMethod::refresh, 3));
  EXPECT_EQ(stale.error, 438);
  EXPECT_EQ(log_, Lines{"auth: nonce TTL expired (issued 301s ago) → 438"});
  // That challenge has pruned the book.
  EXPECT_EQ(ask(request(TURNMethod::refresh, 4)).error, 438);
  EXPECT_EQ(log_, Lines{"auth: nonce unknown (not in issued set, 1 active) → 438"});
  nonce_ = stale.nonce();
  EXPECT_EQ(ask(request(TURNMethod::refresh, 5)).error, 437);
}

TEST_F(Table, TrustsTheKeyAndTheOctetsAsReceivedNotTheNames) {
  nonce_ = challengeNonce();
  TURNMessage other(TURNMethod::refresh, TURNClass::request, {7});
  other.append(TURNAttr::username, bytesOf("bob"));
  other.append(TURNAttr::realm, {});
  other.append(TURNAttr::nonce, bytesOf(nonce_));
  TURNAuth::appendMessageIntegrity(other, key_);
  EXPECT_EQ(ask(other).error, 437);
  Bytes tampered = other.encode();
  tampered[24] ^= 1;  // in the name
  EXPECT_EQ(handle(other, tampered).error, 401);
}

TEST_F(Table, AnswersOtherMethodsWithBadRequestAndEveryClassLikeARequest) {
  for (const std::uint16_t method : std::to_array<std::uint16_t>({1, 6, 7, 0xA, 0xFFF})) {
    const Answer answer = askFreshly(method, 1);
    EXPECT_EQ(answer.error, 400);
    EXPECT_EQ(answer.phrase, "Bad Request");
    EXPECT_EQ(answer.types, (std::vector<int>{TURNAttr::errorCode, TURNAttr::messageIntegrity}));
    EXPECT_EQ(log_, Lines{fmt::format("auth: OK (method=0x{:03x})", method)});
  }
  for (const TURNClass klass :
       {TURNClass::indication, TURNClass::successResponse, TURNClass::errorResponse}) {
    TURNMessage message(TURNMethod::refresh, klass, {});
    EXPECT_EQ(ask(message).error, 401);
    message.append(TURNAttr::username, {});
    message.append(TURNAttr::realm, {});
    message.append(TURNAttr::nonce, bytesOf(nonce_));
    TURNAuth::appendMessageIntegrity(message, key_);
    EXPECT_EQ(ask(message).error, 437);
  }
}

TEST_F(Table, ChallengesWithAFixedNonceWhenTheRandomSourceFails) {
  randomSourceFails = true;
  EXPECT_THROW(TURNAuth::makeNonce(), TURNAuthError);
  nonce_ = challengeNonce();
  randomSourceFails = false;
  EXPECT_EQ(nonce_, std::string(32, '0'));
  now_ += 300;
  EXPECT_EQ(ask(request(TURNMethod::refresh, 1)).error, 437);
}

// ---- Allocate and Refresh ---------------------------------------------------------------------

TEST_F(Table, AllocatesOnceAndAnswersARetransmissionTheSame) {
  const TURNMessage message = [&] {
    nonce_ = challengeNonce();
    return request(TURNMethod::allocate, 1,
                   {{TURNAttr::lifetime, hex("0000003C")},  // not looked at
                    {TURNAttr::requestedTransport, {17, 0, 0, 0}}});
  }();
  EXPECT_EQ(allocation(), nullptr);
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
    EXPECT_EQ(log_, now == 1000 ? Lines{"auth: OK (method=0x003)"}
                                : (Lines{"auth: OK (method=0x003)",
                                         "allocate retransmit (same txID) → resend success"}));
    EXPECT_EQ(allocation()->lifetimeExpiry, 1600U);
  }
  EXPECT_EQ(provider_->asked, 1);
  EXPECT_TRUE(allocation()->permissions.empty());

  now_ = 9000;  // long expired, but still there
  const Answer another = allocate(2);
  EXPECT_EQ(another.error, 437);
  EXPECT_EQ(another.phrase, "Allocation Mismatch");
  client_.clientPort = 5001;
  EXPECT_EQ(allocate(2).error, 0);
  EXPECT_EQ(provider_->asked, 2);
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
  EXPECT_EQ(provider_->asked, 0);
  EXPECT_EQ(allocation(), nullptr);
}

TEST_F(Table, KeepsNothingOfAnAllocationThatFailed) {
  const std::function<RelayedAddress()> failures[] = {
      []() -> RelayedAddress { throw AllocationError::relayCapacityExceeded(); },
      []() -> RelayedAddress { throw std::runtime_error("no proxy"); },
      [] {
        return RelayedAddress{"gateway.example", 1};
      }};
  for (const auto& failure : failures) {
    provider_->answer = failure;
    const Answer answer = allocate(1);
    EXPECT_EQ(answer.error, 500);
    EXPECT_EQ(answer.phrase, "Server Error");
    EXPECT_EQ(log_, Lines{"auth: OK (method=0x003)"});
    EXPECT_EQ(allocation(), nullptr);
  }
  provider_->answer = [] { return RelayedAddress{"203.0.113.5", 1}; };
  EXPECT_EQ(allocate(1).error, 0);  // even the same transaction asks again
  EXPECT_EQ(provider_->asked, 4);
}

TEST_F(Table, RefreshesForTheTimeAskedWithinBounds) {
  EXPECT_EQ(askFreshly(TURNMethod::refresh, 1).error, 437);
  allocate(2);
  const std::pair<Attributes, std::uint32_t> cases[] = {
      {{}, 600},
      {{{TURNAttr::lifetime, hex("00000001")}}, 1},
      {{{TURNAttr::lifetime, hex("00000E10")}}, 3600},
      {{{TURNAttr::lifetime, hex("00002710")}}, 3600},
      {{{TURNAttr::lifetime, hex("FFFFFFFF")}}, 3600},
      {{{TURNAttr::lifetime, hex("0001")}}, 600},
      {{{TURNAttr::lifetime, hex("00000064 00")}}, 100},
      {{{TURNAttr::lifetime, hex("00000064")}, {TURNAttr::lifetime, hex("00000000")}}, 100}};
  for (const auto& [attributes, granted] : cases) {
    now_ += 10'000;  // expired every time, and revived
    const Answer answer = askFreshly(TURNMethod::refresh, 3, attributes);
    EXPECT_EQ(answer.lifetime(), granted);
    EXPECT_EQ(answer.types, (std::vector<int>{TURNAttr::lifetime, TURNAttr::messageIntegrity}));
    EXPECT_EQ(log_, Lines{"auth: OK (method=0x004)"});
    EXPECT_EQ(allocation()->lifetimeExpiry, now_ + granted);
  }
  EXPECT_EQ(askFreshly(TURNMethod::refresh, 4, {{TURNAttr::lifetime, Bytes(4)}}).lifetime(), 0U);
  EXPECT_EQ(allocation(), nullptr);
  EXPECT_EQ(askFreshly(TURNMethod::refresh, 5).error, 437);
  EXPECT_EQ(allocate(6).error, 0);
}

TEST_F(Table, SweepsWhatExpiredBeforeNow) {
  EXPECT_TRUE(table_.sweepExpired(0xFFFFFFFF).empty());
  now_ = 99;
  allocate(1);
  const FiveTuple first = client_;
  client_.clientPort = 5001;  // another port, another client
  now_ = 100;
  allocate(1);
  EXPECT_TRUE(table_.sweepExpired(699).empty());
  EXPECT_EQ(table_.sweepExpired(700), std::unordered_set<FiveTuple>{first});
  EXPECT_EQ(table_.allocation(first), nullptr);
  EXPECT_NE(allocation(), nullptr);
}

// ---- CreatePermission and ChannelBind ---------------------------------------------------------

const Bytes ipv6Peer = hex("0002A147 0113A9FAA5D3F179BC25F4B5BED2B9D9");

TEST_F(Table, PermitsEveryReadablePeerByAddressAlone) {
  allocate(1);
  const Answer answer = askFreshly(TURNMethod::createPermission, 2,
                                   {{TURNAttr::xorPeerAddress, xorAddress("192.0.2.1", 1)},
                                    {TURNAttr::xorPeerAddress, ipv6Peer},
                                    {TURNAttr::xorPeerAddress, Bytes(7)},
                                    {TURNAttr::xorMappedAddress, xorAddress("192.0.2.9", 1)},
                                    {TURNAttr::xorPeerAddress, xorAddress("192.0.2.2", 2)},
                                    {TURNAttr::xorPeerAddress, xorAddress("192.0.2.1", 3)}});
  EXPECT_EQ(answer.types, std::vector<int>{TURNAttr::messageIntegrity});
  const std::set<std::string> permitted{"192.0.2.1", "192.0.2.2"};
  EXPECT_EQ(allocation()->permissions, permitted);
  EXPECT_EQ(askFreshly(TURNMethod::createPermission, 3).error, 0);
  EXPECT_EQ(allocation()->permissions, permitted);
  EXPECT_TRUE(allocation()->channels.empty());
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

  const auto bind = [&](const char* digits, const char* ip, std::uint16_t port) {
    const Answer answer =
        askFreshly(TURNMethod::channelBind, 3,
                   {channel(digits), {TURNAttr::xorPeerAddress, xorAddress(ip, port)}});
    EXPECT_EQ(answer.types, std::vector<int>{TURNAttr::messageIntegrity});
  };
  bind("4000 0000", "192.0.2.1", 1);
  bind("7FFF", "192.0.2.1", 1);  // a peer may have several
  bind("4001 FFFF", "192.0.2.1", 2);
  bind("4001 0000", "192.0.2.2", 3);  // and a channel changes hands
  std::string bound;
  for (const auto& [number, address] : allocation()->channels) {
    bound += fmt::format("{:04x}={}:{} ", number, address.ip, address.port);
  }
  EXPECT_EQ(bound, "4000=192.0.2.1:1 4001=192.0.2.2:3 7fff=192.0.2.1:1 ");
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
  EXPECT_NE(allocation(), nullptr);
  EXPECT_EQ(askFreshly(TURNMethod::channelBind, 3).error, 437);  // before what else is wrong
}

}  // namespace
}  // namespace zk
