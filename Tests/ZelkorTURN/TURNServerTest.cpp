// The server's life, its socket, and what it does with datagrams of clients and peers.

#include <set>

#include "ZelkorTURN/ServerFixture.h"

namespace zk::test {
namespace {

using TURNServerTest = ServerFixture;

/// The same with one client that has a relay.
class AllocatedTest : public ServerFixture {
 protected:
  AllocatedTest() {
    EXPECT_TRUE(client->bindChannel(0x4001, peer).success());
    log.clear();
  }

  const std::unique_ptr<TURNClient> client = allocated();
  const std::shared_ptr<ScriptedRelay> relay = factory->relay(0);
  const Endpoint other = endpointAt("198.51.100.8", 4712);
};

TEST_F(TURNServerTest, StartsOnceAndStopsOnce) {
  EXPECT_EQ(log.lines(), Texts{"bound 127.0.0.1:" + std::to_string(server.boundPort())});
  EXPECT_THROW(server.start(), TURNServerError);
  server.stop();
  server.stop();
  EXPECT_THROW(server.start(), TURNServerError);
}

TEST_F(TURNServerTest, DropsWhatIsNoMessageAndChallengesWhatIsOne) {
  TURNClient client(server.boundPort());
  log.clear();
  Bytes badCookie = client.makeRequest(TURNMethod::allocate).encode();
  badCookie[4] ^= 1;
  for (const Bytes& datagram : {badCookie, Bytes{}, Bytes{0x00}, Bytes{0x80, 1, 2, 3}, Bytes{0xFF},
                                Bytes{0x7F, 0, 0}, client.makeRequest(0x003).encode()}) {
    client.send(datagram);
  }
  ASSERT_TRUE(client.receive(patience));
  EXPECT_FALSE(client.receive(aMoment)) << "one answer in all";
  const std::string from = " from 127.0.0.1:" + portOf(client);
  EXPECT_EQ(log.lines(),
            (Texts{"rx 20B" + from + " firstByte=0x00 kind=STUN",
                   "stun: decode FAILED for 20B datagram" + from,
                   "rx 1B" + from + " firstByte=0x00 kind=STUN",
                   "stun: decode FAILED for 1B datagram" + from,
                   "rx 4B" + from + " firstByte=0x80 kind=unknown",
                   "rx 1B" + from + " firstByte=0xff kind=unknown",
                   "rx 3B" + from + " firstByte=0x7f kind=ChannelData",
                   "rx 20B" + from + " firstByte=0x00 kind=STUN",
                   "stun method=0x003 class=request" + from,
                   "auth: no MESSAGE-INTEGRITY (hasMI=false hasUsername=false hasRealm=false "
                   "hasNonce=false) → 401",
                   "tx method=0x003 class=errorResponse err=401"}));
}

TEST_F(AllocatedTest, RelaysWhatIsWhole) {
  const std::pair<std::uint16_t, Bytes> toPeerOnly{TURNAttr::xorPeerAddress, xorAddress(peer)};
  Bytes ipv6(20);
  ipv6[1] = 2;
  for (const Attributes& attributes :
       {Attributes{toPeerOnly}, Attributes{{TURNAttr::data, bytes("no peer")}},
        Attributes{{TURNAttr::data, bytes("short")}, {TURNAttr::xorPeerAddress, Bytes(7)}},
        Attributes{{TURNAttr::data, bytes("IPv6")}, {TURNAttr::xorPeerAddress, ipv6}},
        // The first of two counts.
        Attributes{{TURNAttr::data, bytes("a")},
                   toPeerOnly,
                   {TURNAttr::xorPeerAddress, xorAddress(other)}}}) {
    TURNMessage message = request(*client, TURNMethod::send, attributes);
    message.klass = TURNClass::indication;
    client->send(message.encode());
  }
  client->sendIndication(peer, {});
  client->send(Bytes{0x40, 0x01, 0, 1, 'b', 0, 0, 0});  // padded
  client->send(Bytes{0x40, 0x01, 0, 0});
  client->send(Bytes{0x40, 0x01, 0, 6, 'c', 'u', 't'});
  client->send(Bytes{0x40, 0x01, 0});
  client->send(Bytes{0x40, 0x02, 0, 1, 'x'});  // never bound
  client->send(Bytes{0x7F, 0xFF, 0, 1, 'x'});
  const Bytes largest(65'507 - 4, 'l');
  client->sendChannelData(0x4001, largest);
  fence(*client);
  EXPECT_EQ(relay->sent(),
            "a" + toPeer + toPeer + "b" + toPeer + toPeer + textOf(largest) + toPeer);
  EXPECT_EQ(log.count("tx "), 1U) << "only the fence is answered";
}

// What has arrived while the loop was busy is passed on together, in order, and a request in
// between is dealt with in its place.
TEST_F(AllocatedTest, PassesOnTogetherWhatArrivesTogetherAndKeepsClientsApart) {
  const auto second = allocated();
  const TURNMessage bind =
      signedRequest(*client, TURNMethod::channelBind,
                    {{TURNAttr::channelNumber, {0x40, 0x02, 0, 0}},
                     {TURNAttr::xorPeerAddress, xorAddress({other.address, 1})}});
  relay->tell([this](RelayListener&) { gate.raise(), std::this_thread::sleep_for(aMoment); });
  ASSERT_EQ(waitFor(gate.descriptor(), POLLIN, Deadline::max()), Wait::ready);
  client->sendChannelData(0x4001, bytes("1"));
  client->sendIndication(other, bytes("2"));
  second->sendIndication(peer, bytes("3"));
  client->send({});
  client->sendChannelData(0x4002, bytes("x"));  // bound to nothing yet
  client->sendChannelData(0x4001, bytes("4"));
  client->send(bind.encode());
  client->sendChannelData(0x4002, bytes("5"));
  second->sendChannelData(0x4001, bytes("not its own"));
  second->sendIndication(other, bytes("6"));
  fence(*second);
  EXPECT_EQ(relay->bursts(),
            (Texts{"1" + toPeer + "2→198.51.100.8:4712 4" + toPeer, "5→198.51.100.8:1 "}));
  EXPECT_EQ(factory->relay(1)->bursts(), (Texts{"3" + toPeer, "6→198.51.100.8:4712 "}));
  EXPECT_EQ(factory->clients(), (std::vector{client->localPort(), second->localPort()}));
  factory->relay(1)->arrive({{bytes("back"), peer, {}}});
  EXPECT_FALSE(second->receiveData(patience)->channel);
  EXPECT_FALSE(client->receiveData(aMoment));
}

// More of them than go with one call, and one that fits no datagram in between.
TEST_F(AllocatedTest, DeliversByChannelWhereOneIsBoundToThatPeerAndElseByIndication) {
  const Endpoint peers[] = {
      peer, {peer.address, 4712}, endpointAt("203.0.113.1", peer.port), {0, peer.port}};
  std::vector<ScriptedRelay::Arrival> burst;
  for (std::uint8_t i = 0; i < 80; ++i) {
    burst.emplace_back(Bytes{i, 'x'}, peers[i % 4],
                       i % 4 == 3 ? std::optional("2001:db8::1") : std::nullopt);
  }
  burst.emplace(burst.begin() + 40, Bytes(65'507), peer, std::nullopt);
  relay->arrive(burst);
  std::set<TransactionID> transactions;
  for (std::uint8_t i = 0; i < 80; ++i) {
    if (i % 4 == 3) {
      continue;
    }
    const auto datagram = client->receive(patience);
    ASSERT_TRUE(datagram);
    if (i % 4 == 0) {
      EXPECT_EQ(*datagram, (Bytes{0x40, 0x01, 0, 2, i, 'x'})) << "without padding";
      continue;
    }
    const auto message = TURNMessage::decode(*datagram);
    ASSERT_TRUE(message);
    EXPECT_TRUE(transactions.insert(message->txID).second);
    TURNMessage wanted(TURNMethod::dataMsg, TURNClass::indication, message->txID);
    wanted.append(TURNAttr::xorPeerAddress, xorAddress(peers[i % 4]));
    wanted.append(TURNAttr::data, Bytes{i, 'x'});
    EXPECT_EQ(*datagram, wanted.encode());
  }
  EXPECT_FALSE(client->receive(aMoment));
  const std::string to = " → client 127.0.0.1:" + portOf(*client);
  EXPECT_EQ(log.lines().front(), "relay rx 2B from 198.51.100.7:4711" + to);
  EXPECT_EQ(log.count("relay rx DROP: peer address is not IPv4 for 127.0.0.1:" + portOf(*client)),
            20U);
}

TEST_F(AllocatedTest, AnExpiredAllocationCarriesNothingUntilItIsRefreshed) {
  const auto bothWays = [&] {
    const std::size_t before = relay->sent().size();
    client->sendIndication(peer, bytes("a"));
    client->sendChannelData(0x4001, bytes("b"));
    relay->arrive({{bytes("c"), peer, {}}});
    fence(*client);
    const std::size_t sent = (relay->sent().size() - before) / (1 + toPeer.size());
    return std::pair(sent, client->receiveData(aMoment).has_value());
  };
  const std::pair both(std::size_t{2}, true);
  const std::pair neither(std::size_t{0}, false);
  advance(600);
  EXPECT_EQ(bothWays(), both) << "alive in its last second";
  advance(1);
  EXPECT_EQ(bothWays(), neither);
  EXPECT_EQ(log.count("relay rx DROP: no allocation or expired for 127.0.0.1:" + portOf(*client)),
            1U);
  EXPECT_EQ(client->allocate().errorCode(), 437);
  EXPECT_EQ(relay->closed, 0);
  EXPECT_TRUE(client->refresh(1).success());
  EXPECT_EQ(bothWays(), both) << "its channels are back, too";
  advance(2);
  EXPECT_EQ(bothWays(), neither);
}

}  // namespace
}  // namespace zk::test
