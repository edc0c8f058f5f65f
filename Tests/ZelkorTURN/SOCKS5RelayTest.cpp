#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Loopback/EchoPeer.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Support.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/SOCKS5Relay.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using loopback::EchoPeer;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;

// What a relay's handler has been given, for a thread that waits for it.
class Inbox {
 public:
  struct Datagram {
    Bytes payload;
    std::string ip;
    int port = 0;
  };
  TURNRelay::Handler handler() {
    return [this](std::span<const PeerDatagram> burst) {
      const std::lock_guard guard(lock_);
      for (const auto& [payload, ip, port] : burst) {
        datagrams_.push_back({test::copyOf(payload), ip, port});
      }
      arrived_.notify_all();
    };
  }
  Datagram next() {
    std::unique_lock guard(lock_);
    if (!arrived_.wait_for(guard, 5s, [this] { return !datagrams_.empty(); })) {
      ADD_FAILURE() << "nothing came";
      return {};
    }
    const Datagram first = datagrams_.front();
    datagrams_.pop_front();
    return first;
  }
  bool isEmpty() {
    const std::lock_guard guard(lock_);
    return datagrams_.empty();
  }

 private:
  std::mutex lock_;
  std::condition_variable arrived_;
  std::deque<Datagram> datagrams_;
};

class Relay : public testing::Test {
 protected:
  Relay() {
    STUNScript script;
    script.mappedIP = "198.51.100.9";
    stun_.setScript(script);
    SOCKS5Script recording;
    recording.recordFrames = true;
    proxy_.setScript(recording);
  }
  ~Relay() override {
    relay_->close();
    EXPECT_TRUE(nothingIsLeft());
    // The system lists a thread a moment longer than it takes to join it.
    EXPECT_TRUE(test::eventually([&] { return test::runningThreads() == threads_; }));
  }
  // Of relays, on either side.
  bool nothingIsLeft() {
    return test::eventually([&] {
      return proxy_.counts().openConnections == 0 && test::openDescriptors() == descriptors_;
    });
  }
  std::shared_ptr<SOCKS5Relay> makeRelay() {
    return std::make_shared<SOCKS5Relay>("127.0.0.1", proxy_.port(), std::nullopt, std::nullopt);
  }
  static std::string failureOf(const std::function<void()>& work) {
    try {
      work();
    } catch (const SOCKS5Error& error) {
      EXPECT_EQ(error.kind(), SOCKS5Error::Kind::connectionFailed);
      return error.description();
    }
    return "";
  }
  std::string openFailure() {
    return failureOf([&] { relay_->open(); });
  }
  std::string sendFailure(const Bytes& payload = {1}) {
    return failureOf([&] { relay_->send(payload, peer_.ip(), peer_.port()); });
  }
  std::string peerText() const { return fmt::format("{}:{}", peer_.ip(), peer_.port()); }

  SOCKS5Server proxy_;
  STUNResponder stun_;
  EchoPeer peer_;
  const test::Environment targets_{"ZK_STUN_IPS", stun_.target()};
  const test::LogTail dataPlaneLog_{"/tmp/zkturnd-dp.log"};
  const std::ptrdiff_t threads_ = test::runningThreads();
  const std::ptrdiff_t descriptors_ = test::openDescriptors();
  Inbox inbox_;
  std::shared_ptr<SOCKS5Relay> relay_ = makeRelay();
};

constexpr const char* notOpen = "TCP connect to proxy failed: relay socket not open";
constexpr const char* failClosed =
    "TCP connect to proxy failed: egress probe failed — fail-closed (no gateway fallback)";

TEST_F(Relay, OpensAtTheProxysEgressAddressAndItsRelayPort) {
  for (const char* const announced : {"127.0.0.1", "0.0.0.0"}) {  // none: the proxy's own host
    std::atomic<int> port = 0;
    SOCKS5Script script;
    script.announceIPv4(announced);
    script.editAssociateReply = [&](Bytes reply) {
      port = readUInt16(reply, reply.size() - 2);
      return reply;
    };
    proxy_.setScript(script);
    relay_ = makeRelay();
    const RelayedAddress address = relay_->allocateRelay();
    EXPECT_EQ(address.ip, "198.51.100.9");
    EXPECT_EQ(address.port, port);
    relay_->receive(inbox_.handler());
    relay_->send(Bytes{1, 2, 3}, peer_.ip(), peer_.port());
    EXPECT_EQ(inbox_.next().payload, (Bytes{1, 2, 3}));
    relay_->close();
    proxy_.setScript({});  // which lets go of `port`
  }
}

TEST_F(Relay, RefusesToOpenTwiceAndGoesOnAsItWas) {
  relay_->open();
  EXPECT_EQ(openFailure(), "TCP connect to proxy failed: relay already open");
  EXPECT_EQ(proxy_.counts().connections, 1U);
  EXPECT_EQ(sendFailure(), "");
  EXPECT_TRUE(test::eventually([&] { return peer_.received() == 1; }));
}

TEST_F(Relay, PassesDatagramsOfAnySizeBothWaysAndLogsThem) {
  relay_->open();
  relay_->receive(inbox_.handler());
  for (const std::size_t size : {0U, 1U, 1200U, 65497U}) {  // the last makes the largest datagram
    const Bytes payload(size, static_cast<std::uint8_t>(size));
    relay_->send(payload, peer_.ip(), peer_.port());
    const auto back = inbox_.next();
    EXPECT_EQ(back.payload, payload);
    EXPECT_EQ(back.ip, peer_.ip());
    EXPECT_EQ(back.port, peer_.port());
    EXPECT_EQ(proxy_.frames(0).back(), SOCKS5UDPFrame::wrap(payload, peer_.ip(), peer_.port()));
    const std::string log = dataPlaneLog_.text();
    EXPECT_NE(log.find(fmt::format(" → {} {}B sendto={}\n", peerText(), size, size + 10)),
              std::string::npos);
    EXPECT_NE(log.find(fmt::format("RECV unwrap OK from {} {}B → handler\n", peerText(), size)),
              std::string::npos);
  }
  EXPECT_EQ(proxy_.egressAddress(0)->sin_port, peer_.lastSource()->sin_port);
}

TEST_F(Relay, ThrowsAndLogsWhatTheSystemRefusesAndStaysUsable) {
  relay_->open();
  EXPECT_EQ(sendFailure(Bytes(65500)),
            "TCP connect to proxy failed: sendto relay: " + errorText(EMSGSIZE));
  EXPECT_TRUE(dataPlaneLog_.has(fmt::format(" → {} 65500B sendto=-1\n", peerText())));
  EXPECT_EQ(sendFailure(), "");
  EXPECT_TRUE(test::eventually([&] { return peer_.received() == 1; }));
}

TEST_F(Relay, SendsABurstInOrderWithoutWhatTheSystemRefuses) {
  relay_->open();
  relay_->receive(inbox_.handler());
  std::vector<Bytes> payloads;
  for (std::size_t i = 1; i <= 20; ++i) {
    payloads.emplace_back(i == 3 || i == 17 ? 65500 : i);
  }
  std::vector<PeerDatagram> burst;
  for (const Bytes& payload : payloads) {
    burst.push_back({payload, peer_.ip(), peer_.port()});
  }
  EXPECT_EQ(failureOf([&] { relay_->sendAll(burst); }),
            "TCP connect to proxy failed: sendto relay: " + errorText(EMSGSIZE));
  std::string lines;
  for (const Bytes& payload : payloads) {
    const bool isRefused = payload.size() == 65500;
    if (!isRefused) {
      EXPECT_EQ(inbox_.next().payload, payload);
    }
    lines += fmt::format("SEND → {} {}B sendto={}\n", peerText(), payload.size(),
                         isRefused ? -1 : static_cast<int>(payload.size()) + 10);
  }
  EXPECT_TRUE(inbox_.isEmpty());
  // Lines of the receive thread stand in between.
  std::istringstream log(dataPlaneLog_.text());
  std::string sends;
  for (std::string line; std::getline(log, line);) {
    if (line.find("SEND fd=") == 0 && line.find(peerText()) != std::string::npos) {
      sends += "SEND " + line.substr(line.find("→")) + "\n";
    }
  }
  EXPECT_EQ(sends, lines);
}

TEST_F(Relay, SendsNothingAndLogsNothingUnlessOpen) {
  EXPECT_EQ(sendFailure(), notOpen);
  relay_->receive(inbox_.handler());  // starts nothing either
  EXPECT_EQ(test::runningThreads(), threads_);
  relay_->open();
  relay_->close();
  EXPECT_EQ(sendFailure(), notOpen);
  relay_->receive(inbox_.handler());
  EXPECT_TRUE(test::eventually([&] { return test::runningThreads() == threads_; }));
  EXPECT_FALSE(dataPlaneLog_.has(peerText()));
}

TEST_F(Relay, DropsMalformedDatagramsAndGoesOn) {
  relay_->open();
  relay_->receive(inbox_.handler());
  const Bytes otherType = test::hex("00000002 7F000001 0001 AA");
  for (const Bytes& raw : {Bytes(9), Bytes(), otherType}) {
    EXPECT_EQ(proxy_.injectToClients(raw), 1U);
  }
  // Peers are named by the header, whatever type of address it has.
  proxy_.injectToClients(test::hex("FFFF0503 04 68 6F 73 74 0102 AA"));
  const auto first = inbox_.next();
  EXPECT_EQ(first.payload, Bytes{0xAA});
  EXPECT_EQ(first.ip, "host");
  EXPECT_EQ(first.port, 0x0102);
  EXPECT_TRUE(inbox_.isEmpty());
  for (const char* const line :
       {"RECV unwrap FAILED 9B (DROPPED)\n", "RECV unwrap FAILED 0B (DROPPED)\n",
        "RECV unwrap FAILED 11B (DROPPED)\n", "RECV recvfrom n=0\n"}) {
    EXPECT_TRUE(dataPlaneLog_.has(line)) << line;
  }
}

TEST_F(Relay, CloseWaitsForTheReceiveThreadAndMayBeRepeated) {
  relay_->close();  // before it was opened, once and for all
  relay_ = makeRelay();
  relay_->open();
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = token;
  std::atomic<int> running = 0;
  relay_->receive([&running, kept = std::move(token)](std::span<const PeerDatagram>) {
    ++running;
    std::this_thread::sleep_for(100ms);
    --running;
  });
  relay_->send(Bytes{1}, peer_.ip(), peer_.port());
  ASSERT_TRUE(test::eventually([&] { return running == 1; }));
  relay_->close();  // while the handler is at work
  EXPECT_EQ(running, 0);
  EXPECT_TRUE(watch.expired());
  const test::Stopwatch time;
  relay_->close();
  EXPECT_LT(time.seconds(), 0.5);
  EXPECT_TRUE(test::eventually([&] { return proxy_.counts().openAssociations == 0; }));
}

TEST_F(Relay, CloseWakesAnIdleReceiveThread) {
  for (int i = 0; i < 20; ++i) {  // at every stage of its start
    relay_ = makeRelay();
    relay_->open();
    relay_->receive(inbox_.handler());
    std::this_thread::sleep_for(std::chrono::microseconds(100 * i));
    const test::Stopwatch time;
    relay_->close();
    EXPECT_LT(time.seconds(), 2.0);
  }
  EXPECT_TRUE(inbox_.isEmpty());
}

TEST_F(Relay, FailsClosedAndReleasesEverythingWithoutAnEgressAddress) {
  // A gateway of its own, as an address that was found for another must not help.
  SOCKS5Script script;
  script.announceIPv4("127.0.0.77");  // nobody listens there
  proxy_.setScript(script);
  EXPECT_EQ(openFailure(), failClosed);
  EXPECT_EQ(sendFailure(), notOpen);
  EXPECT_TRUE(nothingIsLeft());
  proxy_.setScript({});
  EXPECT_EQ(openFailure(), "");  // it may be tried again
}

TEST_F(Relay, LeavesNothingOfAFailedOpening) {
  SOCKS5Script script;
  script.replyCode = 0x05;
  proxy_.setScript(script);
  try {
    relay_->open();
    ADD_FAILURE();
  } catch (const SOCKS5Error& error) {
    EXPECT_EQ(error.description(), "connection refused");  // as the control connection threw it
  }
  SOCKS5Script unresolvable;  // fails without a look-up
  unresolvable.announceDomain(std::string("a\0b", 3));
  unresolvable.announcePort = 4660;
  proxy_.setScript(unresolvable);
  EXPECT_TRUE(openFailure().starts_with(
      std::string("TCP connect to proxy failed: relay getaddrinfo(a\0b:4660): ", 58)));
  EXPECT_TRUE(nothingIsLeft());

  SOCKS5Script silent;
  silent.onGreeting = {loopback::SOCKS5Step::Action::silence};
  proxy_.setScript(silent);
  relay_->connectTimeout = 0.2;
  EXPECT_EQ(openFailure(), "TCP connect to proxy failed: read timeout");
  EXPECT_TRUE(nothingIsLeft());
  proxy_.setScript({});
  EXPECT_EQ(openFailure(), "");
}

}  // namespace
}  // namespace zk
