// How the server opens, keeps and releases relays.

#include <array>
#include <future>

#include "ZelkorTURN/ServerFixture.h"

namespace zk::test {
namespace {

class TURNServerRelayTest : public ServerFixture {
 protected:
  TURNServerRelayTest() { server->start(); }

  /// The lines about openings.
  std::vector<std::string> openingLines() const {
    std::vector<std::string> lines = log->lines();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("relay OPEN"); });
    return lines;
  }

  const TURNClient::Address peer{"198.51.100.7", 4711};
};

TEST_F(TURNServerRelayTest, OpensPinnedFirst) {
  TURNClient client(server->boundPort());
  const TURNAnswer answer = client.allocate();
  ASSERT_TRUE(answer.success());
  EXPECT_EQ(answer.relayedAddress()->ip, "192.0.2.10");
  EXPECT_EQ(answer.relayedAddress()->port, 7000);
  EXPECT_EQ(answer.lifetime(), 600U);
  EXPECT_EQ(openingLines(),
            (std::vector<std::string>{"relay OPEN attempt for 127.0.0.1:" + portOf(client) + "…",
                                      "relay OPEN ok (en0) ip=192.0.2.10 port=7000"}));
  ASSERT_TRUE(log->waitFor("[has XOR-RELAYED-ADDRESS]"));
  EXPECT_EQ(log->lines().back(), "tx method=0x003 class=successResponse [has XOR-RELAYED-ADDRESS]");
  ASSERT_EQ(factory->made(), 1U);
  EXPECT_EQ(factory->relay(0)->overrideWhileOpening(), std::optional(false));
  client.sendIndication(peer, bytes("x"));
  fence(client);
  EXPECT_FALSE(factory->relay(0)->overrideLeftBehind);
}

TEST_F(TURNServerRelayTest, OpensByTheDefaultRouteWhenPinnedFails) {
  factory->plan({.error = "no way out"});
  factory->plan({.ip = "192.0.2.77", .port = 7777});
  TURNClient client(server->boundPort());
  const TURNAnswer answer = client.allocate();
  ASSERT_TRUE(answer.success());
  EXPECT_EQ(answer.relayedAddress()->ip, "192.0.2.77");
  EXPECT_EQ(answer.relayedAddress()->port, 7777);
  EXPECT_EQ(openingLines(),
            (std::vector<std::string>{
                "relay OPEN attempt for 127.0.0.1:" + portOf(client) + "…",
                "relay OPEN en0 failed (no way out) → retry via-default (full-tunnel VPN)",
                "relay OPEN ok (via-default) ip=192.0.2.77 port=7777"}));
  ASSERT_EQ(factory->made(), 2U);
  EXPECT_EQ(factory->relay(0)->overrideWhileOpening(), std::optional(false));
  EXPECT_EQ(factory->relay(1)->overrideWhileOpening(), std::optional(true));
  EXPECT_EQ(factory->relay(0)->closed, 0) << "a failed opening has released what it held";
  EXPECT_FALSE(factory->relay(0)->handler());

  client.sendIndication(peer, bytes("x"));
  fence(client);
  EXPECT_TRUE(factory->relay(0)->sent().empty());
  EXPECT_EQ(factory->relay(1)->sent().size(), 1U);
  EXPECT_FALSE(factory->relay(1)->overrideLeftBehind);
  server->stop();
  EXPECT_EQ(factory->relay(0)->closed, 0);
  EXPECT_EQ(factory->relay(1)->closed, 1);
}

TEST_F(TURNServerRelayTest, Answers500WhenBothRungsFail) {
  factory->plan({.error = "first"});
  factory->plan({.error = "second"});
  TURNClient client(server->boundPort());
  const TURNAnswer answer = client.allocate();
  EXPECT_EQ(answer.errorCode(), 500);
  EXPECT_TRUE(answer.integrityVerified);
  EXPECT_EQ(openingLines(),
            (std::vector<std::string>{
                "relay OPEN attempt for 127.0.0.1:" + portOf(client) + "…",
                "relay OPEN en0 failed (first) → retry via-default (full-tunnel VPN)",
                "relay OPEN FAILED both rungs: second"}));
  // Nothing is left of it, and the next attempt is a fresh one.
  EXPECT_EQ(client.refresh({}).errorCode(), 437);
  EXPECT_TRUE(client.allocate().success());
  EXPECT_EQ(factory->made(), 3U);
  client.sendIndication(peer, bytes("x"));
  fence(client);
  EXPECT_EQ(factory->relay(2)->sent().size(), 1U);
  EXPECT_FALSE(factory->relay(2)->overrideLeftBehind);
}

TEST_F(TURNServerRelayTest, AnAddressThatNoClientCanBeToldIsAFailure) {
  for (const char* const ip : {"proxy.example", "2001:db8::1"}) {
    factory->plan({.ip = ip});
  }
  TURNClient client(server->boundPort());
  EXPECT_EQ(client.allocate().errorCode(), 500);
  ASSERT_EQ(factory->made(), 2U);
  EXPECT_EQ(factory->relay(0)->closed, 1);
  EXPECT_EQ(factory->relay(1)->closed, 1);
  EXPECT_TRUE(client.allocate().success());
}

TEST_F(TURNServerRelayTest, ARelayThatCannotReceiveIsClosed) {
  factory->plan({.receiveFails = true});
  TURNClient client(server->boundPort());
  EXPECT_EQ(client.allocate().errorCode(), 500);
  ASSERT_EQ(factory->made(), 1U);
  EXPECT_EQ(factory->relay(0)->closed, 1);
  client.sendIndication(peer, bytes("x"));
  fence(client);
  EXPECT_TRUE(factory->relay(0)->sent().empty());
  EXPECT_TRUE(client.allocate().success());
}

TEST_F(TURNServerRelayTest, ARepeatedAllocateOpensNothing) {
  TURNClient client(server->boundPort());
  client.allocate();
  ASSERT_TRUE(client.refresh(0).success());
  // Sent twice with one transaction ID before the first is answered, as over a slow proxy.
  std::promise<void> gate;
  factory->plan({.gate = gate.get_future().share()});
  TURNMessage request = client.makeRequest(TURNMethod::allocate);
  request.append(TURNAttr::requestedTransport, Bytes{17, 0, 0, 0});
  client.sign(request);
  client.send(request.encode());
  client.send(request.encode());
  EXPECT_TRUE(log->waitFor("relay OPEN attempt", 2));
  gate.set_value();
  const auto one = client.receive(patience);
  const auto two = client.receive(patience);
  ASSERT_TRUE(one && two);
  EXPECT_EQ(*one, *two);
  EXPECT_EQ(factory->made(), 2U);
  EXPECT_EQ(client.allocate().errorCode(), 437);
}

TEST_F(TURNServerRelayTest, RefreshWithLifetimeZeroReleasesTheRelay) {
  TURNClient client(server->boundPort());
  TURNClient other(server->boundPort());
  ASSERT_TRUE(client.allocate().success());
  ASSERT_TRUE(other.allocate().success());
  const auto relay = factory->relay(0);
  ASSERT_TRUE(client.refresh(0).success());
  fence(client);
  EXPECT_EQ(relay->closed, 1);
  EXPECT_EQ(factory->relay(1)->closed, 0);
  client.sendIndication(peer, bytes("x"));
  fence(client);
  EXPECT_TRUE(relay->sent().empty());
  relay->arrive(bytes("on its way already"), peer.ip, peer.port);
  EXPECT_TRUE(
      log->waitFor("relay rx DROP: no allocation or expired for 127.0.0.1:" + portOf(client)));

  ASSERT_TRUE(client.allocate().success());
  server->stop();
  EXPECT_EQ(relay->closed, 1);
  EXPECT_EQ(factory->relay(1)->closed, 1);
  EXPECT_EQ(factory->relay(2)->closed, 1);
}

TEST_F(TURNServerRelayTest, SweepsTheLongExpiredWhenSomebodyAllocates) {
  const auto allocateElsewhere = [&] { return TURNClient(server->boundPort()).allocate(); };
  TURNClient gone(server->boundPort());
  TURNClient staying(server->boundPort());
  ASSERT_TRUE(gone.allocate().success());
  ASSERT_TRUE(staying.allocate().success());
  ASSERT_TRUE(staying.refresh(3600).success());

  advance(600 + 300);  // expired for 299 seconds and some
  ASSERT_TRUE(allocateElsewhere().success());
  fence(staying);
  EXPECT_EQ(factory->relay(0)->closed, 0);
  advance(1);
  factory->plan({.error = "down"});
  factory->plan({.error = "down"});
  EXPECT_EQ(allocateElsewhere().errorCode(), 500);
  fence(staying);
  EXPECT_EQ(factory->relay(0)->closed, 0) << "an Allocate that failed sweeps nothing";
  ASSERT_TRUE(allocateElsewhere().success());
  fence(staying);
  EXPECT_EQ(factory->relay(0)->closed, 1);
  EXPECT_EQ(factory->relay(1)->closed, 0);
  EXPECT_EQ(gone.refresh({}).errorCode(), 437);
  EXPECT_TRUE(gone.allocate().success()) << "swept means free to allocate again";
}

TEST_F(TURNServerRelayTest, StopClosesEveryRelayOnce) {
  std::vector<std::unique_ptr<TURNClient>> clients;
  for (std::size_t i = 0; i < 20; ++i) {
    clients.push_back(std::make_unique<TURNClient>(server->boundPort()));
    ASSERT_TRUE(clients.back()->allocate().success());
  }
  server->stop();
  server->stop();
  for (std::size_t i = 0; i < clients.size(); ++i) {
    EXPECT_EQ(factory->relay(i)->closed, 1) << i;
  }
  const Bytes late = bytes("late");
  factory->relay(3)->arrive(std::vector<PeerDatagram>(30, {late, peer.ip, peer.port}));
  EXPECT_FALSE(clients[3]->receive(aMoment));
  server = std::make_shared<TURNServer>(Credentials{}, "", factory);
  factory->relay(3)->arrive(bytes("later still, with the server gone"), peer.ip, peer.port);
}

// A slow proxy blocks the queue for seconds. What others send meanwhile is kept, in order, but not
// without bound.
TEST_F(TURNServerRelayTest, AFloodDuringAnOpeningIsBounded) {
  TURNClient client(server->boundPort());
  ASSERT_TRUE(client.allocate().success());
  ASSERT_TRUE(client.bindChannel(0x4001, peer).success());
  const auto relay = factory->relay(0);
  constexpr std::size_t limit = 32 << 20;
  const Bytes large(60'000);
  // Twice: what the first flood held must have been given back.
  for (std::size_t flood = 1; flood <= 2; ++flood) {
    const std::size_t sentBefore = relay->sent().size();
    const std::size_t loggedBefore = log->count("relay rx 60000B");
    std::promise<void> gate;
    factory->plan({.gate = gate.get_future().share()});
    TURNClient slow(server->boundPort());
    std::thread opening([&] { EXPECT_TRUE(slow.allocate().success()); });
    ASSERT_TRUE(log->waitFor("relay OPEN attempt", flood + 1));

    for (std::uint8_t i = 0; i < 50; ++i) {
      client.sendChannelData(0x4001, Bytes{i});
    }
    for (std::size_t i = 0; i < 300; ++i) {
      client.sendChannelData(0x4001, large);
      ASSERT_TRUE(log->waitFor("rx 60004B", (flood - 1) * 300 + i + 1));
    }
    client.send(Bytes{0xFF});  // its line says that what came before it is queued
    ASSERT_TRUE(log->waitFor("kind=unknown", flood));
    for (std::size_t i = 0; i < 1000; ++i) {
      relay->arrive(large, "192.0.2.1", 1);
    }
    gate.set_value();
    opening.join();
    fence(client);

    auto sent = relay->sent();
    sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(sentBefore));
    ASSERT_EQ(sent.size(), 350U) << "what came before the limit is all there";
    for (std::uint8_t i = 0; i < 50; ++i) {
      EXPECT_EQ(sent[i].payload, Bytes{i});
    }
    const std::size_t delivered = log->count("relay rx 60000B") - loggedBefore;
    EXPECT_LE((300 + delivered) * large.size(), limit);
    EXPECT_GE((300 + delivered + 2) * large.size(), limit * 98 / 100);
    while (client.receive(aMoment)) {
    }
  }
}

}  // namespace
}  // namespace zk::test
