#include <linux/filter.h>
#include <netinet/tcp.h>
#include <poll.h>

#include "ZelkorSeal/CarrierFixture.h"

namespace zk::test {
namespace {

using namespace std::chrono_literals;
using loopback::KitSocket;
using loopback::SOCKS5Script;
using loopback::SOCKS5Step;
using Action = SOCKS5Step::Action;

class CarrierTCP : public CarrierTest {
 protected:
  static inline const Endpoint open = at("203.0.113.7", 80);

  // `open` is the listener; at other addresses the last octet is the proxy's REP.
  void SetUp() override {
    CarrierTest::SetUp();
    script_.connectTo = [this](const Endpoint& to) -> SOCKS5Script::Route {
      return {far_.endpoint(),
              to == open ? std::uint8_t{0} : static_cast<std::uint8_t>(to.address)};
    };
  }

  // A program and its far end, connected.
  std::pair<Descriptor, KitSocket> connected() {
    Descriptor program = network_.socket(SOCK_STREAM);
    EXPECT_EQ(connect(program, open), 0);
    return {std::move(program), far_.accept()};
  }

  // So many connections to the proxy, once those that were begun ahead are closed.
  bool leavesOpen(std::size_t count) {
    pass(ProxyConnection::spareLimit);
    return eventually([&] { return proxy_.counts().openConnections == count; });
  }

  FarListener far_;
};

TEST_F(CarrierTCP, TellsTheTruthAboutWhatItMeets) {
  settings_.proxy.username = "user";
  settings_.proxy.password = "secret";
  script_.login = {"user", "secret"};
  start();
  for (const auto& [address, expected] :
       std::initializer_list<std::pair<const char*, int>>{{"203.0.113.5", ECONNREFUSED},
                                                          {"203.0.113.3", ENETUNREACH},
                                                          {"203.0.113.4", EHOSTUNREACH},
                                                          {"203.0.113.1", EHOSTUNREACH},
                                                          {"203.0.113.2", EHOSTUNREACH}}) {
    EXPECT_EQ(connectTo(at(address, 80)), expected) << address;
  }
  EXPECT_EQ(keptIn(), std::vector<std::string>{});
  // Nobody knocks at networks that are the proxy's own, or nobody's.
  for (const char* const address :
       {"192.168.1.1", "192.168.7.9", "10.1.2.3", "100.64.0.1", "169.254.169.254", "240.0.0.1"}) {
    EXPECT_EQ(connectTo(at(address, 80)), EHOSTUNREACH) << address;
  }
  EXPECT_TRUE(hasLine("kept in: private TCP to 10.1.2.3:80"));
  EXPECT_EQ(keptIn().size(), 5U);
  EXPECT_EQ(connectTo(open), 0);
}

TEST_F(CarrierTCP, CarriesPrivateAddressesWhenToldTo) {
  settings_.carriesPrivate = true;
  start();
  EXPECT_EQ(connectTo(at("10.1.2.5", 80)), ECONNREFUSED) << "says the proxy";
  EXPECT_EQ(connectTo(at("169.254.169.254", 80)), EHOSTUNREACH);
  EXPECT_EQ(keptIn(), std::vector<std::string>{"1 private TCP to 169.254.169.254:80"});
}

// Each way of a proxy to fail ends the connection, or leaves it waiting, and nothing else.
TEST_F(CarrierTCP, SurvivesAProxyThatFails) {
  start();
  for (const Action action : {Action::reset, Action::close, Action::half, Action::silence}) {
    script_.onConnect.action = action;
    proxy_.setScript(script_);
    const Descriptor program = network_.socket(SOCK_STREAM);
    const timeval limit{0, 300'000};
    setsockopt(program.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const bool waits = action == Action::half || action == Action::silence;
    EXPECT_EQ(connect(program, open), waits ? EINPROGRESS : EHOSTUNREACH);
  }
  script_.onConnect = {};
  script_.connectTo = {};
  proxy_.setScript(script_);
  const std::uint16_t port = proxy_.port();
  proxy_.stop();
  EXPECT_EQ(connectTo(open), EHOSTUNREACH);
  script_.connectTo = [this](const Endpoint&) -> SOCKS5Script::Route { return {far_.endpoint()}; };
  loopback::SOCKS5Server again(script_, "127.0.0.1", port);
  EXPECT_EQ(connectTo(open), 0);
}

TEST_F(CarrierTCP, EndsAndResetsBothWays) {
  start();
  {
    const auto [program, far] = connected();
    say(program.get(), "question");
    shutdown(program.get(), SHUT_WR);
    EXPECT_EQ(readAll(far.get()), "question");
    say(far.get(), "answer");
    shutdown(far.get(), SHUT_WR);
    EXPECT_EQ(readAll(program.get()), "answer");
  }
  EXPECT_TRUE(
      eventually([&] { return hasLine("TCP to 203.0.113.7:80: ended, 8 octets out, 6 in"); }));
  {
    const auto [program, far] = connected();
    say(far.get(), "the first word");
    shutdown(far.get(), SHUT_WR);
    EXPECT_EQ(readAll(program.get()), "the first word");
    say(program.get(), "the last");
    shutdown(program.get(), SHUT_WR);
    EXPECT_EQ(readAll(far.get()), "the last");
  }
  const linger none{1, 0};
  {
    auto [program, far] = connected();
    setsockopt(program.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    program.reset();
    EXPECT_EQ(readAll(far.get()), "<Connection reset by peer>");
  }
  {
    auto [program, far] = connected();
    setsockopt(far.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    far.reset();
    EXPECT_EQ(readAll(program.get()), "<Connection reset by peer>");
  }
  {  // half closed, and then gone
    auto [program, far] = connected();
    shutdown(program.get(), SHUT_WR);
    EXPECT_EQ(readAll(far.get()), "");
    setsockopt(program.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    program.reset();
    EXPECT_TRUE(leavesOpen(0));
  }
}

// By what its connection asks of the system, as two minutes are too long to wait.
TEST_F(CarrierTCP, NoticesWithinTwoMinutesThatTheProxyIsGoneWithoutAWord) {
  start();
  const auto [program, far] = connected();
  int found = 0;
  thread_.sync([&] {  // which makes no connection meanwhile
    for (int number = 0; number < 1024; ++number) {
      sockaddr_in peer{};
      socklen_t size = sizeof peer;
      if (getpeername(number, reinterpret_cast<sockaddr*>(&peer), &size) != 0 ||
          Endpoint::of(peer) != loopback::localEndpoint(proxy_.port())) {
        continue;
      }
      const auto option = [number](int level, int name) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(number, level, name, &value, &length), 0);
        return value;
      };
      ++found;
      EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
      EXPECT_LE(option(IPPROTO_TCP, TCP_KEEPIDLE) +
                    option(IPPROTO_TCP, TCP_KEEPINTVL) * option(IPPROTO_TCP, TCP_KEEPCNT),
                120);
    }
  });
  EXPECT_GE(found, 1) << "some are begun ahead";
}

// The far end has closed long before; the program takes its time over what it was sent.
TEST_F(CarrierTCP, LosesNothingForASlowReader) {
  start();
  auto [program, far] = connected();
  const int small = 65536;
  setsockopt(program.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  std::string sent;
  for (std::uint32_t i = 0; sent.size() < 6'300'000; ++i) {
    sent += fmt::format("{},", i);
  }
  std::thread sender([&, to = far.get()] {
    say(to, sent);
    shutdown(to, SHUT_WR);
  });
  std::string received;
  std::array<char, 65536> buffer;
  ssize_t got = 0;
  while ((got = recv(program.get(), buffer.data(), buffer.size(), 0)) > 0) {
    received.append(buffer.data(), static_cast<std::size_t>(got));
    if (received.size() % 3 == 0) {
      std::this_thread::sleep_for(10ms);
    }
  }
  sender.join();
  EXPECT_TRUE(received == sent) << received.size() << " of " << sent.size();
}

// The program ends with its last word, and the carrier once that has been passed on.
TEST_F(CarrierTCP, LosesNothingOfWhatWasSaidLast) {
  start();
  auto [program, far] = connected();
  const std::string sent(3'000'000, 'x');
  std::string received;
  std::thread reader([&, from = far.get()] {
    std::string piece(65536, ' ');
    ssize_t got = 0;
    while ((got = recv(from, piece.data(), piece.size(), 0)) > 0) {
      received.append(piece, 0, static_cast<std::size_t>(got));
      std::this_thread::sleep_for(5ms);
    }
    received += got == 0 ? "" : errorText(errno);
  });
  say(program.get(), sent);
  program.reset();
  EXPECT_TRUE(eventually([&] { return !thread_.ask([this] { return carrier_->passingOn(); }); }));
  thread_.sync([this] { carrier_.reset(); });
  reader.join();
  EXPECT_TRUE(received == sent) << received.size();
}

TEST_F(CarrierTCP, RefusesWhatIsTooManyAndGoesOn) {
  start();
  std::vector<Descriptor> programs;
  for (int i = 0; i < 3000; ++i) {
    programs.push_back(network_.socket(SOCK_STREAM | SOCK_NONBLOCK));
    ASSERT_EQ(connect(programs.back(), open), EINPROGRESS);
  }
  std::size_t opened = 0;
  std::size_t refused = 0;
  for (const Descriptor& program : programs) {
    pollfd waiting{program.get(), POLLOUT, 0};
    ASSERT_EQ(poll(&waiting, 1, 10'000), 1);
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(program.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    opened += error == 0 ? 1 : 0;
    refused += error == ECONNREFUSED ? 1 : 0;
  }
  EXPECT_GE(opened, TCPGate::maxConnections);
  EXPECT_EQ(opened + refused, programs.size());
  EXPECT_EQ(connectTo(open), refused > 0 ? ECONNREFUSED : 0);
  programs.clear();
  for (std::size_t i = 0; i < opened; ++i) {
    far_.accept();
  }
  EXPECT_TRUE(eventually([&] { return connectTo(open) == 0; }));
}

// Neither a number that is used too soon nor one that is not given back.
TEST_F(CarrierTCP, OpensOneConnectionAfterTheOther) {
  start();
  Stopwatch stopwatch;
  for (int i = 0; i < 400; ++i) {
    const auto [program, far] = connected();
    say(i % 2 == 0 ? program.get() : far.get(), "x");
  }
  EXPECT_LT(stopwatch.seconds(), 8);
  EXPECT_TRUE(leavesOpen(0));
}

// What can be said to the proxy before it is known where to has been said by then, so that only the
// request is left to say; and nothing stays open for long when nobody comes.
TEST_F(CarrierTCP, BeginsConnectionsAhead) {
  constexpr std::size_t greeting = 3;
  constexpr std::size_t request = 10;
  start();
  const auto first = connected();
  const auto second = connected();
  const std::size_t ahead = 3;  // behind theirs and the one that found the way
  EXPECT_TRUE(eventually([&] { return proxy_.controlBytes(ahead).size() == greeting; }));
  {
    const auto third = connected();
    EXPECT_EQ(proxy_.controlBytes(ahead).size(), greeting + request);
  }
  EXPECT_TRUE(leavesOpen(2));

  // One that the proxy has ended by the time it is needed is no reason to fail.
  EXPECT_EQ(connectTo(open), 0);
  EXPECT_TRUE(eventually(
      [&] { return proxy_.controlBytes(proxy_.counts().connections - 1).size() == greeting; }));
  const Descriptor late = network_.socket(SOCK_STREAM | SOCK_NONBLOCK);
  thread_.sync([&] {
    EXPECT_EQ(connect(late, open), EINPROGRESS);
    proxy_.closeControlConnections();
    EXPECT_TRUE(eventually([&] { return proxy_.counts().openConnections == 0; }));
  });
  pollfd waiting{late.get(), POLLOUT, 0};
  EXPECT_EQ(poll(&waiting, 1, 10'000), 1);
  EXPECT_EQ(waiting.revents, POLLOUT);
}

// What connects to the listener without having come by the tun takes nobody's place; neither does a
// program that is gone before it was accepted, nor one that never hears that it was.
TEST_F(CarrierTCP, AcceptsNobodyWhoWasNotAnnounced) {
  script_.onConnect.delay = 300ms;
  start();
  const Descriptor stranger = network_.socket(SOCK_STREAM);
  connect(stranger, {SealNetwork::address, SealNetwork::listenerPort});
  EXPECT_EQ(readAll(stranger.get()), "<Connection reset by peer>");
  Descriptor gone = network_.socket(SOCK_STREAM | SOCK_NONBLOCK);
  EXPECT_EQ(connect(gone, open), EINPROGRESS);
  gone.reset();
  EXPECT_TRUE(eventually([&] { return hasLine("given up by the program"); }));
  EXPECT_TRUE(leavesOpen(0));
  const Descriptor deaf = network_.socket(SOCK_STREAM | SOCK_NONBLOCK);
  sock_filter nothing{BPF_RET | BPF_K, 0, 0, 0};
  const sock_fprog filter{1, &nothing};
  setsockopt(deaf.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
  EXPECT_EQ(connect(deaf, at("203.0.113.0", 80)), EINPROGRESS);
  EXPECT_TRUE(eventually([&] { return hasLine("203.0.113.0:80: connected"); }));
  EXPECT_GT(proxy_.counts().openConnections, 0U);
  pass(TCPGate::acceptLimit);
  EXPECT_TRUE(leavesOpen(0));
}

}  // namespace
}  // namespace zk::test
