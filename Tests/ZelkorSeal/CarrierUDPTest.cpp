
#include "ZelkorSeal/CarrierFixture.h"

namespace zk::test {
namespace {

using namespace std::chrono_literals;
using loopback::SOCKS5Script;

// The proxy sends back what it gets: the destination has become the source.
class CarrierUDP : public CarrierTest {
 protected:
  static inline const Endpoint peer = at("203.0.113.7", 5000);

  void SetUp() override {
    CarrierTest::SetUp();
    script_.relay = SOCKS5Script::Relay::reflect;
  }

  Descriptor program(int buffer = 4 << 20) {
    Descriptor socket = network_.socket(SOCK_DGRAM);
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer);
    return socket;
  }
  static void sendTo(const Descriptor& socket, const Endpoint& to, std::string_view text) {
    const sockaddr_in address = to.socketAddress();
    EXPECT_EQ(sendto(socket.get(), text.data(), text.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(text.size()));
  }
  // "TEXT from ADDRESS:PORT", or the error.
  static std::string receive(const Descriptor& socket) {
    std::array<char, 65536> buffer;
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t size = recvfrom(socket.get(), buffer.data(), buffer.size(), 0,
                                  reinterpret_cast<sockaddr*>(&from), &length);
    return size < 0 ? errorText(errno)
                    : std::string(buffer.data(), static_cast<std::size_t>(size)) + " from " +
                          Endpoint::of(from).text();
  }
};

TEST_F(CarrierUDP, GivesEachLocalPortOneRelayForAllItsPeers) {
  start();
  const Descriptor first = program();
  for (const char* const address : {"203.0.113.7", "198.51.100.1", "8.8.4.4"}) {
    sendTo(first, at(address, 7000), address);
  }
  std::vector<std::string> heard{receive(first), receive(first), receive(first)};
  EXPECT_EQ(heard, (std::vector<std::string>{"203.0.113.7 from 203.0.113.7:7000",
                                             "198.51.100.1 from 198.51.100.1:7000",
                                             "8.8.4.4 from 8.8.4.4:7000"}));
  const Descriptor second = program();
  sendTo(second, peer, std::string(60'000, 'x'));
  EXPECT_EQ(receive(second).size(), 60'000 + std::string(" from 203.0.113.7:5000").size());
  EXPECT_EQ(proxy_.counts().associations, 2U);

  // A peer that was never sent to; one that has no IPv4 address.
  const Bytes name = concatenated(hex("00000003 04 70656572 1388"), bytesOf("?"));
  proxy_.injectToClient(0, name);
  proxy_.injectToClient(0, SOCKS5UDPFrame::wrap(bytesOf("hello"), at("192.0.2.4", 9)));
  EXPECT_EQ(receive(first), "hello from 192.0.2.4:9");
  EXPECT_EQ(keptIn(), std::vector<std::string>{"1 other"});
}

TEST_F(CarrierUDP, KeepsWhatIsSentBeforeTheRelayIsThere) {
  settings_.carriesQUIC = true;
  script_.onAssociate.delay = 300ms;
  start();
  const Descriptor socket = program();
  for (int i = 0; i < 100; ++i) {
    sendTo(socket, peer, fmt::format("{}", i));
  }
  for (std::size_t i = 0; i < UDPCarrier::maxKept; ++i) {
    ASSERT_EQ(receive(socket), fmt::format("{} from 203.0.113.7:5000", i));
  }
  sendTo(socket, peer, "\xC3 begins like QUIC");
  EXPECT_EQ(receive(socket), "\xC3 begins like QUIC from 203.0.113.7:5000");
}

TEST_F(CarrierUDP, TellsWhenThereIsNoRelayAndTriesAnewLater) {
  std::vector<std::string> told;
  settings_.tell = [&](std::string_view sentence) { told.emplace_back(sentence); };
  script_.sessionLimit = 1;
  start();
  const Descriptor first = program();
  sendTo(first, peer, "1");
  EXPECT_EQ(receive(first), "1 from 203.0.113.7:5000");
  const Descriptor second = program();
  ASSERT_EQ(connect(second, peer), 0);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(::send(second.get(), "2", 1, 0), 1);
    EXPECT_EQ(receive(second), "Connection refused");
  }
  EXPECT_EQ(proxy_.counts().connections, 3U) << "two attempts of one opening";
  script_.sessionLimit = SIZE_MAX;
  proxy_.setScript(script_);
  EXPECT_TRUE(eventually([&] {
    std::this_thread::sleep_for(500ms);
    return ::send(second.get(), "3", 1, 0) == 1 && receive(second) == "3 from 203.0.113.7:5000";
  }));
  thread_.sync([&] {
    EXPECT_EQ(told, std::vector<std::string>{"the proxy gives no more than 1 UDP associations at "
                                             "once: some calls may fail"});
  });
}

TEST_F(CarrierUDP, LosesNothingOfBurstsInBothDirections) {
  start();
  const Descriptor socket = program();
  sendTo(socket, peer, "first");
  receive(socket);
  for (int i = 0; i < 500; ++i) {
    sendTo(socket, peer, fmt::format("{:1200}", i));
  }
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(receive(socket), fmt::format("{:1200} from 203.0.113.7:5000", i));
  }
}

TEST_F(CarrierUDP, OpensManyAtOnceAndTakesFromTheIdlest) {
  script_.distance = 100ms;
  start();
  std::vector<Descriptor> sockets;
  const Stopwatch stopwatch;
  for (std::size_t i = 0; i < 200; ++i) {
    sockets.push_back(program(1 << 16));
    sendTo(sockets.back(), peer, "x");
  }
  for (const Descriptor& socket : sockets) {
    ASSERT_EQ(receive(socket), "x from 203.0.113.7:5000");
  }
  EXPECT_LT(stopwatch.seconds(), 5);
  script_.distance = 0ms;
  proxy_.setScript(script_);
  sendTo(sockets[1], peer, "x");  // the others are idle for longer
  ASSERT_EQ(receive(sockets[1]), "x from 203.0.113.7:5000");
  while (sockets.size() < UDPCarrier::maxRelays + 1) {
    sockets.push_back(program(1 << 16));
    sendTo(sockets.back(), peer, "x");
    ASSERT_EQ(receive(sockets.back()), "x from 203.0.113.7:5000");
  }
  EXPECT_TRUE(
      eventually([&] { return proxy_.counts().openAssociations == UDPCarrier::maxRelays; }));
  EXPECT_EQ(proxy_.counts().associations, UDPCarrier::maxRelays + 1);
  sendTo(sockets[1], peer, "still there");
  EXPECT_EQ(receive(sockets[1]), "still there from 203.0.113.7:5000");
  EXPECT_EQ(proxy_.counts().associations, UDPCarrier::maxRelays + 1);
}

// Words of either side count (RFC 4787, REQ-6).
TEST_F(CarrierUDP, APortThatIsIdleForTwoMinutesLosesItsRelay) {
  start();
  const Descriptor speaks = program();
  const Descriptor hears = program();
  const Descriptor idle = program();
  const auto works = [](const Descriptor& socket) {
    sendTo(socket, peer, "x");
    return receive(socket) == "x from 203.0.113.7:5000";
  };
  ASSERT_TRUE(works(speaks) && works(hears) && works(idle));
  pass(110s);
  script_.relay = SOCKS5Script::Relay::dropAll;
  proxy_.setScript(script_);
  sendTo(speaks, peer, "into the void");
  proxy_.injectToClient(1, SOCKS5UDPFrame::wrap(bytesOf("hello"), peer));
  ASSERT_EQ(receive(hears), "hello from 203.0.113.7:5000");
  EXPECT_EQ(proxy_.counts().openAssociations, 3U);
  pass(20s);
  EXPECT_TRUE(eventually([&] { return proxy_.counts().openAssociations == 2; }));
  script_.relay = SOCKS5Script::Relay::reflect;
  proxy_.setScript(script_);
  EXPECT_TRUE(works(speaks) && works(hears));
  EXPECT_EQ(proxy_.counts().associations, 3U);
  EXPECT_TRUE(works(idle));
  EXPECT_EQ(proxy_.counts().associations, 4U);
}

// As an ICE restart finds it.
TEST_F(CarrierUDP, GetsANewRelayWhenTheProxyHasLostTheOld) {
  start();
  const Descriptor socket = program();
  sendTo(socket, peer, "before");
  EXPECT_EQ(receive(socket), "before from 203.0.113.7:5000");
  proxy_.closeControlConnections();
  EXPECT_TRUE(eventually([&] {
    sendTo(socket, peer, "after");
    std::this_thread::sleep_for(100ms);
    return proxy_.counts().associations == 2;
  }));
  // What was sent meanwhile is lost.
  EXPECT_EQ(receive(socket), "after from 203.0.113.7:5000");
}

}  // namespace
}  // namespace zk::test
