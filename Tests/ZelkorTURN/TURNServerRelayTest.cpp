// How the server opens, keeps and releases relays, and what others notice of it.

#include "ZelkorTURN/ServerFixture.h"

namespace zk::test {
namespace {

using TURNServerRelayTest = ServerFixture;

// The first attempt is pinned and has 3 seconds to connect, the second goes by the default route.
TEST_F(TURNServerRelayTest, OpensInTwoAttempts) {
  const std::string failed = "→ retry via-default (full-tunnel VPN)";
  const struct {
    std::vector<RelayPlan> plans;
    int error;
    Texts lines;  // behind "relay OPEN "
  } cases[] = {
      {{{}}, 0, {"ok (en0) ip=192.0.2.10 port=7000"}},
      {{{.error = "no way"}, {.ip = "192.0.2.7"}},
       0,
       {"en0 failed (no way) " + failed, "ok (via-default) ip=192.0.2.7 port=7000"}},
      {{{.ip = "proxy.example"}, {.ip = "2001:db8::1"}},
       500,
       {"en0 failed (TCP connect to proxy failed: relayed address is not IPv4: proxy.example) " +
            failed,
        "FAILED both rungs: TCP connect to proxy failed: relayed address is not IPv4: "
        "2001:db8::1"}},
      {{{.receiveFails = true}},
       500,
       {"ok (en0) ip=192.0.2.10 port=7000", "FAILED: watch: No space left on device"}}};
  for (const auto& c : cases) {
    const auto client = newClient();
    log.clear();
    const std::size_t before = factory->made();
    for (const RelayPlan& plan : c.plans) {
      factory->plan(plan);
    }
    const TURNAnswer answer = client->allocate();
    EXPECT_TRUE(answer.integrityVerified);
    EXPECT_EQ(answer.errorCode(), c.error);
    Texts lines{"relay OPEN attempt for 127.0.0.1:" + portOf(*client) + "…"};
    for (const std::string& line : c.lines) {
      lines.push_back("relay OPEN " + line);
    }
    EXPECT_EQ(log.lines("relay OPEN"), lines);
    ASSERT_EQ(factory->made(), before + c.plans.size());
    for (std::size_t i = 0; i < c.plans.size(); ++i) {
      const auto relay = factory->relay(before + i);
      EXPECT_EQ(relay->viaDefault, i == 1);
      EXPECT_EQ(relay->connectTimeout, i == 1 ? 10 : 3);
      EXPECT_EQ(relay->closed, c.plans[i].receiveFails ? 1 : 0);
    }
    if (c.error == 0) {
      EXPECT_EQ(answer.relayedAddress()->ip(), c.plans.back().ip);
      client->sendIndication(peer, bytes("x"));
      fence(*client);
      EXPECT_EQ(factory->relay(factory->made() - 1)->bursts().size(), 1U);
      EXPECT_EQ(log.count("tx method=0x003 class=successResponse [has XOR-RELAYED-ADDRESS]"), 1U);
    } else {
      EXPECT_EQ(client->refresh({}).errorCode(), 437) << "nothing is left of it";
      EXPECT_TRUE(client->allocate().success()) << "and the next transaction tries anew";
    }
  }
}

// A proxy that hangs is nobody's business but that client's, whose messages wait in order, within
// limits. A retransmission of the request that is being answered is absorbed.
TEST_F(TURNServerRelayTest, AnOpeningHoldsUpNobodyButItsClient) {
  const auto other = allocated();
  const auto client = newClient();
  factory->plan({.gate = &gate});
  const Bytes request = signedRequest(*client, TURNMethod::allocate, udp).encode();
  client->send(request);
  ASSERT_TRUE(eventually([&] { return factory->made() == 2; }));
  std::string wanted;
  for (std::size_t i = 0; i < Opening::maxDatagrams; ++i) {
    client->send(request);
    client->sendIndication(peer, bytes(std::to_string(i)));
    wanted += std::to_string(i) + toPeer;
    if (i % 16 == 0) {
      fence(*other);  // so that nothing is lost on the way
    }
  }
  client->sendIndication(peer, bytes("one too many"));
  other->sendIndication(peer, bytes("through"));
  factory->relay(0)->arrive({{bytes("back"), peer, {}}});
  EXPECT_TRUE(other->receiveData(patience));
  allocated();
  fence(*other);
  EXPECT_EQ(factory->relay(0)->sent(), "through" + toPeer);
  EXPECT_FALSE(client->receive(aMoment));

  gate.raise();
  ASSERT_TRUE(client->receive(patience));
  fence(*client);
  EXPECT_EQ(factory->relay(1)->sent(), wanted);
  EXPECT_FALSE(client->receive(aMoment)) << "one answer to all the retransmissions";
  EXPECT_EQ(factory->made(), 3U);
}

TEST_F(TURNServerRelayTest, KeepsSoManyOctetsOfAWaitingClient) {
  const auto client = opening(gate);
  const Bytes large(Opening::maxOctets / 2 - 36, 'l');  // with its header just half of it
  for (const Bytes& payload : {large, Bytes(large.size() + 1, 'x'), large, bytes("x")}) {
    client->sendIndication(peer, payload);
  }
  ASSERT_TRUE(log.waitFor("kind=STUN", 7));
  gate.raise();
  ASSERT_TRUE(client->receive(patience));
  fence(*client);
  const std::string one = textOf(large) + toPeer;
  EXPECT_EQ(factory->relay(0)->sent(), one + one);
}

// RFC 5389 section 7.2.1.
TEST_F(TURNServerRelayTest, AFailedTransactionStaysFailedForItsRetransmissions) {
  const auto client = newClient();
  const auto other = newClient();
  factory->planFailure();
  const TURNMessage request = signedRequest(*client, TURNMethod::allocate, udp);
  const auto answer = [&](TURNClient& whose) { return whose.request(request).errorCode(); };
  EXPECT_EQ(answer(*client), 500);
  EXPECT_EQ(factory->made(), 2U);
  advance(40);
  EXPECT_EQ(answer(*client), 500);
  EXPECT_EQ(factory->made(), 2U) << "without a new opening";
  EXPECT_EQ(answer(*other), 0) << "somebody else's transaction is another";
  advance(1);
  EXPECT_EQ(answer(*client), 0);
  EXPECT_EQ(answer(*client), 0) << "which is now a retransmission of what succeeded";
  EXPECT_EQ(factory->made(), 4U);
}

// And ends them all at once.
TEST_F(TURNServerRelayTest, OpensSixteenAtOnceAndTheRestInTheOrderOfArrival) {
  std::vector<std::unique_ptr<TURNClient>> clients;
  std::vector<std::uint16_t> ports;
  StopSignal firstGate;
  for (std::size_t i = 0; i < 24; ++i) {
    if (i < RelayOpener::maxOpenings) {
      clients.push_back(opening(i == 5 ? firstGate : gate));
    } else {
      clients.push_back(newClient());
      clients[i]->send(signedRequest(*clients[i], TURNMethod::allocate, udp).encode());
    }
    ports.push_back(clients[i]->localPort());
  }
  fence(*newClient());
  EXPECT_EQ(factory->made(), RelayOpener::maxOpenings);
  firstGate.raise();  // the others go on hanging
  for (std::size_t i = RelayOpener::maxOpenings; i < clients.size(); ++i) {
    EXPECT_TRUE(clients[i]->receive(patience));
  }
  EXPECT_EQ(factory->clients(), ports);
  const auto last = opening(gate);
  const auto waiting = newClient();
  waiting->send(signedRequest(*waiting, TURNMethod::allocate, udp).encode());
  fence(*newClient());
  const Stopwatch time;
  server.stop();
  EXPECT_LT(time.seconds(), 0.3);
  EXPECT_EQ(factory->made(), clients.size() + 1) << "what waits is not begun";
  for (std::size_t i = 0; i < factory->made(); ++i) {
    EXPECT_EQ(factory->relay(i).use_count(), 2) << "held by nobody but the factory";
  }
}

// Whether Allocates succeed, fail, or nobody asks for any.
TEST_F(TURNServerRelayTest, SweepsTheLongExpiredBeforeOpeningsAndEveryThirtySeconds) {
  const auto staying = allocated();
  const auto expired = [&] {
    EXPECT_TRUE(staying->refresh(3600).success());
    allocated();
    return factory->relay(factory->made() - 1);
  };
  const auto byOpening = expired();
  advance(900);  // expired for 300 seconds, at most
  allocated();
  EXPECT_EQ(byOpening->closed, 0);
  advance(1);
  factory->planFailure();
  EXPECT_EQ(newClient()->allocate().errorCode(), 500);
  EXPECT_EQ(byOpening->closed, 1) << "before the opening that failed";

  const auto byTime = expired();
  const auto isClosedAfter = [&](std::uint64_t seconds) {
    advance(seconds);
    for (int i = 0; i < 2; ++i) {
      fence(*staying);  // for the loop to look at its clock
    }
    return byTime->closed == 1;
  };
  EXPECT_FALSE(isClosedAfter(900));
  EXPECT_FALSE(isClosedAfter(29));
  EXPECT_TRUE(isClosedAfter(1));
  EXPECT_EQ(factory->relay(0)->closed, 0);
}

// The client notices by its next request and allocates anew.
TEST_F(TURNServerRelayTest, ARelayThatHasGoneSilentGoesWithItsAllocation) {
  const auto client = allocated();
  const auto relay = factory->relay(0);
  relay->tell([](RelayListener& listener) { listener.onAssociationEnd("end of stream"); });
  relay->arrive({{bytes("still there"), peer, {}}});
  EXPECT_TRUE(client->receiveData(patience));
  EXPECT_EQ(log.lines("relay END"), std::vector{"relay END for 127.0.0.1:" + portOf(*client) +
                                                ": control connection: end of stream"});
  relay->tell([](RelayListener& listener) { listener.onLoss(RelayListener::Loss::silent); });
  ASSERT_TRUE(log.waitFor("relay SILENT since its end, released for 127.0.0.1:" + portOf(*client)));
  EXPECT_EQ(client->refresh({}).errorCode(), 437);
  EXPECT_EQ(relay->closed, 1);
  EXPECT_TRUE(client->allocate().success());
}

// Unless it is cut off: it may not be closed as long as no route leads to the proxy, but has no say
// any more.
TEST_F(TURNServerRelayTest, RefreshWithLifetimeZeroReleasesTheRelayAtOnce) {
  const auto other = allocated();
  for (const bool isCutOff : {false, true}) {
    const auto client = allocated();
    const auto released = factory->relay(factory->made() - 1);
    released->cutOff = isCutOff;
    ASSERT_TRUE(client->refresh(0).success());
    client->sendIndication(peer, bytes("x"));
    fence(*client);
    EXPECT_EQ(released->sent(), "");
    EXPECT_EQ(released->closed, isCutOff ? 0 : 1);
    ASSERT_TRUE(client->allocate().success());
    released->arrive({{bytes("late"), peer, {}}});
    released->tell([](RelayListener& listener) {
      listener.onAssociationEnd("end of stream");
      listener.onLoss(RelayListener::Loss::silent);
    });
    EXPECT_FALSE(client->receiveData(aMoment));
    EXPECT_TRUE(client->refresh({}).success());
    EXPECT_EQ(factory->relay(factory->made() - 1)->closed, 0);
    if (isCutOff) {
      EXPECT_TRUE(other->refresh({}).success());
      server.stop();
      EXPECT_EQ(released->closed, 1);
    }
  }
}

}  // namespace
}  // namespace zk::test
