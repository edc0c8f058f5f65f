// The server's life, its socket, and what it does with datagrams from clients.

#include <array>
#include <future>

#include <sys/resource.h>
#include <unistd.h>

#include "Support.h"
#include "ZelkorTURN/ServerFixture.h"
#include "ZelkorTURN/TURNServer.h"

namespace zk::test {
namespace {

using std::chrono::steady_clock;

class TURNServerTest : public ServerFixture {};

/// The same with one client that has a relay.
class AllocatedTest : public ServerFixture {
 protected:
  AllocatedTest() {
    server->start();
    client = std::make_unique<TURNClient>(server->boundPort());
    EXPECT_TRUE(client->allocate().success());
    relay = factory->relay(0);
    log->clear();
  }

  void bindChannel(std::uint16_t number, const TURNClient::Address& to) {
    ASSERT_TRUE(client->bindChannel(number, to).success());
    log->clear();
  }

  std::unique_ptr<TURNClient> client;
  std::shared_ptr<ScriptedRelay> relay;
  const TURNClient::Address peer{"198.51.100.7", 4711};
};

TEST_F(TURNServerTest, StartsOnceAndStopsOnce) {
  EXPECT_EQ(server->boundPort(), 0);
  server->start();
  EXPECT_NE(server->boundPort(), 0);
  EXPECT_EQ(log->lines(), std::vector{"bound 127.0.0.1:" + std::to_string(server->boundPort())});
  EXPECT_THROW(server->start(), TURNServerError);

  const auto before = steady_clock::now();
  server->stop();  // while the receive thread waits and nothing comes
  server->stop();
  EXPECT_LT(steady_clock::now() - before, std::chrono::seconds(2));
  EXPECT_THROW(server->start(), TURNServerError);
  // The port is free again.
  TURNClient late(server->boundPort());
  late.setTimeout(aMoment);
  EXPECT_FALSE(late.allocate().message);
}

TEST_F(TURNServerTest, StoppedBeforeItStartedItNeverStarts) {
  server->stop();
  EXPECT_THROW(server->start(), TURNServerError);
  EXPECT_EQ(server->boundPort(), 0);
}

TEST_F(TURNServerTest, StartSaysWhyThereIsNoSocketAndCanBeTriedAgain) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer needs descriptors for its own checks";
#endif
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  std::string text;
  int code = 0;
  try {
    server->start();
  } catch (const POSIXError& error) {
    text = error.what();
    code = error.code();
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(text, "socket: Too many open files");
  EXPECT_EQ(code, EMFILE);
  server->start();
  EXPECT_NE(server->boundPort(), 0);
}

TEST_F(TURNServerTest, ChallengesWithTheseLines) {
  server->start();
  TURNClient client(server->boundPort());
  const TURNMessage request = client.makeRequest(TURNMethod::allocate);
  log->clear();
  const TURNAnswer answer = client.request(request);
  EXPECT_EQ(answer.errorCode(), 401);
  EXPECT_FALSE(client.receive(aMoment)) << "a second answer";
  EXPECT_EQ(log->lines(),
            (std::vector<std::string>{
                "rx 20B from 127.0.0.1:" + portOf(client) + " firstByte=0x00 kind=STUN",
                "stun method=0x003 class=request from 127.0.0.1:" + portOf(client),
                "auth: no MESSAGE-INTEGRITY (hasMI=false hasUsername=false hasRealm=false "
                "hasNonce=false) → 401",
                "tx method=0x003 class=errorResponse err=401"}));
}

TEST_F(TURNServerTest, DropsWhatIsNoMessage) {
  server->start();
  TURNClient client(server->boundPort());
  log->clear();
  Bytes badCookie = client.makeRequest(TURNMethod::allocate).encode();
  badCookie[4] ^= 1;
  const std::string from = " from 127.0.0.1:" + portOf(client);
  for (const Bytes& datagram :
       {badCookie, Bytes{}, Bytes{0x00}, Bytes{0x80, 1, 2, 3}, Bytes{0xFF}, Bytes{0x7F, 0, 0}}) {
    client.send(datagram);
  }
  EXPECT_FALSE(client.receive(aMoment));
  fence(client);
  std::vector<std::string> lines = log->lines();
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("stun method"); });
  std::sort(lines.begin(), lines.end());  // two threads write
  lines.erase(lines.begin(), std::find_if(lines.begin(), lines.end(),
                                          [](const auto& line) { return line.starts_with("rx"); }));
  EXPECT_EQ(lines,
            (std::vector<std::string>{"rx 1B" + from + " firstByte=0x00 kind=STUN",
                                      "rx 1B" + from + " firstByte=0xff kind=unknown",
                                      "rx 20B" + from + " firstByte=0x00 kind=STUN",
                                      "rx 20B" + from + " firstByte=0x00 kind=STUN",  // the fence
                                      "rx 3B" + from + " firstByte=0x7f kind=ChannelData",
                                      "rx 4B" + from + " firstByte=0x80 kind=unknown",
                                      "stun: decode FAILED for 1B datagram" + from,
                                      "stun: decode FAILED for 20B datagram" + from,
                                      "tx method=0x004 class=errorResponse err=401"}));
  EXPECT_EQ(factory->made(), 0U);
}

TEST_F(TURNServerTest, AnswersEachClientAtItsOwnAddress) {
  server->start();
  TURNClient one(server->boundPort());
  TURNClient two(server->boundPort());
  const TURNAnswer first = one.allocate();
  const TURNAnswer second = two.allocate();
  ASSERT_TRUE(first.success());
  ASSERT_TRUE(second.success());
  EXPECT_EQ(first.mappedAddress()->port, one.localPort());
  EXPECT_EQ(second.mappedAddress()->port, two.localPort());
  EXPECT_EQ(factory->client(0).clientIP, "127.0.0.1");
  EXPECT_EQ(factory->client(0).clientPort, one.localPort());
  EXPECT_EQ(factory->client(1).clientPort, two.localPort());

  one.sendIndication({"192.0.2.1", 1}, bytes("one"));
  two.sendIndication({"192.0.2.1", 1}, bytes("two"));
  fence(two);
  ASSERT_EQ(factory->relay(0)->sent().size(), 1U);
  ASSERT_EQ(factory->relay(1)->sent().size(), 1U);
  EXPECT_EQ(factory->relay(0)->sent()[0].payload, bytes("one"));
  factory->relay(1)->arrive(bytes("back"), "192.0.2.1", 1);
  ASSERT_TRUE(two.receiveData(patience));
  EXPECT_FALSE(one.receiveData(aMoment));
}

TEST_F(AllocatedTest, RelaysSendIndicationsWithoutAPermission) {
  client->sendIndication(peer, bytes("hello"));
  client->sendIndication(peer, {});
  fence(*client);
  const auto sent = relay->sent();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].payload, bytes("hello"));
  EXPECT_EQ(sent[0].ip, peer.ip);
  EXPECT_EQ(sent[0].port, peer.port);
  EXPECT_TRUE(sent[1].payload.empty());
  EXPECT_EQ(log->count("stun method=0x006 class=indication from 127.0.0.1:" + portOf(*client)), 2U);
  EXPECT_EQ(log->count("tx "), 1U) << "only the fence is answered";
}

TEST_F(AllocatedTest, DropsSendIndicationsThatLackSomething) {
  const auto peerValue = *TURNAttributes::encodeXorAddress(peer.ip, peer.port);
  Bytes ipv6(20);
  ipv6[1] = 2;
  const auto indication = [&](std::optional<ByteView> address, std::optional<ByteView> payload) {
    TURNMessage message(TURNMethod::send, TURNClass::indication, {});
    if (address) {
      message.append(TURNAttr::xorPeerAddress, *address);
    }
    if (payload) {
      message.append(TURNAttr::data, *payload);
    }
    client->send(message.encode());
  };
  const Bytes payload = bytes("x");
  indication({}, payload);
  indication(peerValue, {});
  indication(ByteView(peerValue).first(7), payload);
  indication(ipv6, payload);
  TURNClient stranger(server->boundPort());
  stranger.sendIndication(peer, payload);
  fence(stranger);
  EXPECT_TRUE(relay->sent().empty());
  EXPECT_EQ(factory->made(), 1U);
  EXPECT_FALSE(stranger.receive(aMoment));
  // The first of two addresses counts.
  TURNMessage twice(TURNMethod::send, TURNClass::indication, {});
  twice.append(TURNAttr::data, payload);
  twice.append(TURNAttr::xorPeerAddress, peerValue);
  twice.append(TURNAttr::xorPeerAddress, *TURNAttributes::encodeXorAddress("192.0.2.2", 2));
  client->send(twice.encode());
  fence(*client);
  ASSERT_EQ(relay->sent().size(), 1U);
  EXPECT_EQ(relay->sent()[0].ip, peer.ip);
}

TEST_F(AllocatedTest, RelaysChannelDataByItsLengthField) {
  bindChannel(0x4001, peer);
  client->send(Bytes{0x40, 0x01, 0, 5, 'h', 'e', 'l', 'l', 'o', 0, 0, 0});  // padded
  client->send(Bytes{0x40, 0x01, 0, 0});
  client->send(Bytes{0x40, 0x01, 0, 6, 'h', 'e', 'l', 'l', 'o'});  // cut
  client->send(Bytes{0x40, 0x01, 0});
  client->send(Bytes{0x40, 0x02, 0, 1, 'x'});  // never bound
  client->send(Bytes{0x7F, 0xFF, 0, 1, 'x'});
  TURNClient stranger(server->boundPort());
  stranger.sendChannelData(0x4001, bytes("not mine"));
  fence(stranger);
  const auto sent = relay->sent();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].payload, bytes("hello"));
  EXPECT_EQ(sent[0].ip, peer.ip);
  EXPECT_EQ(sent[0].port, peer.port);
  EXPECT_TRUE(sent[1].payload.empty());
}

TEST_F(AllocatedTest, CarriesTheLargestDatagrams) {
  bindChannel(0x4001, peer);
  const Bytes large(65'507 - 4, 0xA5);
  client->sendChannelData(0x4001, large);
  fence(*client);
  ASSERT_EQ(relay->sent().size(), 1U);
  EXPECT_EQ(relay->sent()[0].payload, large);
  relay->arrive(large, peer.ip, peer.port);
  const auto back = client->receiveData(patience);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->payload, large);
  // What no longer fits a datagram is lost, and nothing else is.
  relay->arrive(Bytes(65'507, 1), peer.ip, peer.port);
  relay->arrive(Bytes(65'507, 1), "192.0.2.9", 9);
  relay->arrive(bytes("next"), peer.ip, peer.port);
  const auto next = client->receiveData(patience);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->payload, bytes("next"));
}

TEST_F(AllocatedTest, KeepsTheOrderOfOneClient) {
  bindChannel(0x4001, peer);
  constexpr std::uint16_t rounds = 200;  // a socket's buffer holds them all
  for (std::uint16_t i = 0; i < rounds; ++i) {
    std::array<std::uint8_t, 2> number{};
    writeUInt16(number.data(), i);
    i % 2 == 0 ? client->sendChannelData(0x4001, number) : client->sendIndication(peer, number);
    relay->arrive(number, peer.ip, peer.port);
    const auto back = client->receiveData(patience);
    ASSERT_TRUE(back);
    EXPECT_EQ(readUInt16(back->payload, 0), i);
  }
  fence(*client);
  const auto sent = relay->sent();
  ASSERT_EQ(sent.size(), rounds);
  for (std::uint16_t i = 0; i < rounds; ++i) {
    ASSERT_EQ(readUInt16(sent[i].payload, 0), i);
  }
}

// What has arrived while the receive thread was busy is taken, and passed on, together.
TEST_F(TURNServerTest, PassesOnTogetherWhatArrivesTogether) {
  std::promise<void> gate;
  const std::shared_future<void> opened = gate.get_future().share();
  server->debugLog = [&, log = log](std::string_view line) {
    log->append(line);
    if (line.find("kind=unknown") != std::string::npos) {
      opened.wait();
    }
  };
  server->start();
  TURNClient one(server->boundPort());
  TURNClient two(server->boundPort());
  const TURNClient::Address peer{"198.51.100.7", 4711};
  const TURNClient::Address other{"198.51.100.8", 4712};
  for (TURNClient* const client : {&one, &two}) {
    ASSERT_TRUE(client->allocate().success());
    ASSERT_TRUE(client->bindChannel(0x4001, peer).success());
  }
  one.send(Bytes{0xFF});
  ASSERT_TRUE(log->waitFor("kind=unknown"));
  one.sendChannelData(0x4001, bytes("1"));
  one.sendIndication(other, bytes("2"));
  one.sendIndication(other, bytes("3"));
  two.sendChannelData(0x4001, bytes("4"));
  one.send({});                             // no datagram of the protocol, and no end to the burst
  one.sendChannelData(0x4002, bytes("x"));  // bound to nothing yet
  one.sendChannelData(0x4001, bytes("5"));
  one.send(one.makeRequest(TURNMethod::refresh).encode());
  // The second call of the system.
  one.sendChannelData(0x4001, bytes("6"));
  two.sendIndication(other, bytes("7"));
  two.sendChannelData(0x4001, bytes("8"));
  gate.set_value();
  fence(one);
  fence(two);

  const auto sentBy = [&](std::size_t number) {
    std::string text;
    for (const auto& [payload, ip, port] : factory->relay(number)->sent()) {
      text += textOf(payload) + (port == other.port && ip == other.ip ? "other " : " ");
    }
    return text;
  };
  EXPECT_EQ(sentBy(0), "1 2other 3other 5 6 ");
  EXPECT_EQ(sentBy(1), "4 7other 8 ");
  EXPECT_EQ(factory->relay(0)->bursts(), (std::vector<std::size_t>{3, 1, 1}));
  EXPECT_EQ(factory->relay(1)->bursts(), (std::vector<std::size_t>{1, 2}));
}

// Also when there are more of them than one call of the system takes.
TEST_F(AllocatedTest, DeliversTogetherWhatArrivesTogether) {
  bindChannel(0x4001, peer);
  std::vector<PeerDatagram> burst;
  const std::string payloads = "abcdefghijklmnopqrstuvwxyz";
  const std::vector<std::string> peers{peer.ip, "203.0.113.1", "2001:db8::1"};
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    burst.push_back({bytesOf(std::string_view(payloads).substr(i, 1)), peers[i % 3], peer.port});
  }
  relay->arrive(burst);
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    if (i % 3 != 2) {
      const auto back = client->receiveData(patience);
      ASSERT_TRUE(back);
      EXPECT_EQ(textOf(back->payload), payloads.substr(i, 1));
      EXPECT_EQ(back->channel.has_value(), i % 3 == 0);
    }
  }
  EXPECT_EQ(log->count("relay rx 1B"), payloads.size());
  EXPECT_EQ(log->count("relay rx DROP: peer address is not IPv4"), payloads.size() / 3);
}

// Requests and data may be dealt with on different threads.
TEST_F(AllocatedTest, DataDoesNotOvertakeARequest) {
  for (std::uint16_t number = 0x4000; number < 0x4000 + 200; ++number) {
    TURNMessage bind = client->makeRequest(TURNMethod::channelBind);
    std::array<std::uint8_t, 4> value{};
    writeUInt16(value.data(), number);
    bind.append(TURNAttr::channelNumber, value);
    bind.append(TURNAttr::xorPeerAddress, *TURNAttributes::encodeXorAddress(peer.ip, peer.port));
    client->sign(bind);
    client->send(bind.encode());
    client->sendChannelData(number, bytes("at once"));
    ASSERT_TRUE(client->receive(patience));
  }
  fence(*client);
  EXPECT_EQ(relay->sent().size(), 200U);
}

TEST_F(AllocatedTest, DeliversByChannelWhereOneIsBoundToThatPeer) {
  bindChannel(0x4001, peer);
  const auto delivered = [&](const std::string& ip, std::uint16_t port) {
    relay->arrive(bytes("hello"), ip, port);
    auto data = client->receive(patience);
    EXPECT_TRUE(data);
    return data.value_or(Bytes{});
  };
  EXPECT_EQ(delivered(peer.ip, peer.port), (Bytes{0x40, 0x01, 0, 5, 'h', 'e', 'l', 'l', 'o'}))
      << "without padding";
  EXPECT_EQ(log->lines(), std::vector{"relay rx 5B from 198.51.100.7:4711 → client 127.0.0.1:" +
                                      portOf(*client)});

  // Another port or address is another peer, needs no permission and comes as an indication.
  TransactionID previous{};
  for (const auto& [ip, port] : {std::pair{peer.ip, std::uint16_t(4712)},
                                 std::pair{std::string("203.0.113.1"), std::uint16_t(4711)}}) {
    const Bytes datagram = delivered(ip, port);
    const auto message = TURNMessage::decode(datagram);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->method, TURNMethod::dataMsg);
    EXPECT_EQ(message->klass, TURNClass::indication);
    TURNMessage expected(TURNMethod::dataMsg, TURNClass::indication, message->txID);
    expected.append(TURNAttr::xorPeerAddress, *TURNAttributes::encodeXorAddress(ip, port));
    expected.append(TURNAttr::data, bytes("hello"));
    EXPECT_EQ(datagram, expected.encode());
    EXPECT_NE(message->txID, previous);
    previous = message->txID;
  }
  relay->arrive(bytes("x"), "2001:db8::1", 4711);
  ASSERT_TRUE(log->waitFor("relay rx DROP: "));
  EXPECT_FALSE(client->receive(aMoment));
}

TEST_F(AllocatedTest, ASendThatFailsHarmsNobody) {
  factory->plan({.sendFails = true});
  TURNClient unlucky(server->boundPort());
  ASSERT_TRUE(unlucky.allocate().success());
  unlucky.sendIndication(peer, bytes("lost"));
  client->sendIndication(peer, bytes("kept"));
  fence(unlucky);
  EXPECT_EQ(factory->relay(1)->sent().size(), 1U);
  EXPECT_EQ(relay->sent().size(), 1U);
  EXPECT_EQ(factory->relay(1)->closed, 0);
}

TEST_F(AllocatedTest, AnExpiredAllocationCarriesNothingUntilItIsRefreshed) {
  bindChannel(0x4001, peer);
  const auto bothWays = [&] {
    const std::size_t before = relay->sent().size();
    client->sendIndication(peer, bytes("a"));
    client->sendChannelData(0x4001, bytes("b"));
    relay->arrive(bytes("c"), peer.ip, peer.port);
    const bool back = client->receiveData(aMoment).has_value();
    fence(*client);
    return std::pair(relay->sent().size() - before, back);
  };
  advance(600);
  EXPECT_EQ(bothWays(), std::pair(std::size_t{2}, true)) << "alive in its last second";
  advance(1);
  log->clear();
  EXPECT_EQ(bothWays(), std::pair(std::size_t{0}, false));
  EXPECT_EQ(log->count("relay rx DROP: no allocation or expired for 127.0.0.1:" + portOf(*client)),
            1U);
  EXPECT_EQ(client->allocate().errorCode(), 437);
  EXPECT_EQ(relay->closed, 0);

  EXPECT_TRUE(client->refresh(1).success());
  EXPECT_EQ(bothWays(), std::pair(std::size_t{2}, true)) << "its channels are back, too";
  advance(2);
  EXPECT_EQ(bothWays(), std::pair(std::size_t{0}, false));
}

}  // namespace
}  // namespace zk::test
