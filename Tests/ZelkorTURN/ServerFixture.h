#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>

#include "Loopback/TURNClient.h"
#include "Platform/Sockets.h"
#include "Support.h"
#include "ZelkorTURN/TURNServer.h"

namespace zk::test {

using loopback::endpointAt;
using loopback::TURNAnswer;
using loopback::TURNClient;

using std::chrono::milliseconds;

inline constexpr milliseconds patience{10'000};  // for what must come
inline constexpr milliseconds aMoment{100};      // for what must not

inline Bytes bytes(std::string_view text) {
  return copyOf(bytesOf(text));
}

using Texts = std::vector<std::string>;
using Attributes = std::vector<std::pair<std::uint16_t, Bytes>>;

inline Bytes xorAddress(const Endpoint& endpoint) {
  return copyOf(TURNAttributes::encodeXorAddress(endpoint));
}

/// Lines from many threads.
class Log {
 public:
  LogCallback callback() {
    return [this](std::string_view line) {
      const std::lock_guard guard(lock_);
      for (std::size_t end = 0; end != line.npos;
           line.remove_prefix(end == line.npos ? 0 : end + 1)) {
        end = line.find('\n');
        lines_.emplace_back(line.substr(0, end));
      }
    };
  }
  /// Those that contain `piece`.
  Texts lines(const std::string& piece = "") const {
    const std::lock_guard guard(lock_);
    Texts found = lines_;
    std::erase_if(found, [&](const auto& line) { return line.find(piece) == line.npos; });
    return found;
  }
  std::size_t count(const std::string& piece) const { return lines(piece).size(); }
  bool waitFor(const std::string& piece, std::size_t times = 1) const {
    return eventually([&] { return count(piece) >= times; });
  }
  void clear() {
    const std::lock_guard guard(lock_);
    lines_.clear();
  }

 private:
  mutable std::mutex lock_;
  Texts lines_;
};

/// What a relay of the test does when the server opens it.
struct RelayPlan {
  std::string ip = "192.0.2.10";
  std::string error{};               // not empty: the opening throws this
  bool receiveFails = false;         // receive() finds nothing to watch with
  const StopSignal* gate = nullptr;  // the opening hangs until this is raised, or it is stopped
};

/// A relay without a network. Everything it is asked for is written down.
class ScriptedRelay final : public TURNRelay {
 public:
  explicit ScriptedRelay(RelayPlan plan) : plan_(std::move(plan)) {}

  RelayedAddress allocateRelay(const OpeningAttempt& attempt) override {
    viaDefault = attempt.viaDefault;
    connectTimeout = attempt.connectTimeout;
    if (plan_.gate != nullptr &&
        waitFor(plan_.gate->descriptor(), POLLIN, Deadline::max(), attempt.stop) != Wait::ready) {
      throw std::runtime_error("stopped");
    }
    if (!plan_.error.empty()) {
      throw std::runtime_error(plan_.error);
    }
    return {plan_.ip, 7000};
  }

  void sendAll(std::span<const PeerDatagram> datagrams) override {
    std::string burst;
    for (const auto& [payload, to] : datagrams) {
      burst += std::string(payload.begin(), payload.end()) + "→" + to.endpoint.text() + " ";
    }
    const std::lock_guard guard(lock_);
    bursts_.push_back(burst);
  }
  void receive(const RelayLoop& loop, RelayListener& listener) override {
    if (plan_.receiveFails) {
      throw std::system_error(ENOSPC, std::generic_category(), "watch");
    }
    const std::lock_guard guard(lock_);
    loop_ = &loop.loop;
    listener_ = &listener;
  }
  RelayWay way() const override { return {}; }
  void setCutOff(bool isCutOff) override { cutOff = isCutOff; }
  bool isCutOff() const override { return cutOff; }
  void retire() override { retired = true; }
  void close() override { ++closed; }

  /// Has the relay tell its listener something, on the loop's thread, unless it is closed by then.
  void tell(std::function<void(RelayListener&)> work) {
    const std::lock_guard guard(lock_);
    loop_->post([this, work = std::move(work), listener = listener_] {
      if (closed == 0 && !retired) {
        work(*listener);
      }
    });
  }
  /// A payload, whom it is from, and what the proxy calls that one if it has no IPv4 address.
  using Arrival = std::tuple<Bytes, Endpoint, std::optional<std::string>>;
  void arrive(std::vector<Arrival> burst) {
    tell([burst = std::move(burst)](RelayListener& listener) {
      std::vector<ReceivedDatagram> datagrams;
      for (const auto& [payload, peer, name] : burst) {
        datagrams.push_back({payload, peer, name});
      }
      listener.onDatagrams(datagrams);
    });
  }

  /// "payload→ip:port " of each datagram of each burst.
  Texts bursts() const {
    const std::lock_guard guard(lock_);
    return bursts_;
  }
  std::string sent() const {
    std::string all;
    for (const std::string& burst : bursts()) {
      all += burst;
    }
    return all;
  }

  std::atomic<int> closed{0};
  std::atomic<bool> cutOff{false};
  std::atomic<bool> retired{false};
  std::atomic<bool> viaDefault{false};
  std::atomic<double> connectTimeout{0};

 private:
  const RelayPlan plan_;
  EventLoop* loop_ = nullptr;
  RelayListener* listener_ = nullptr;
  mutable std::mutex lock_;
  Texts bursts_;
};

class ScriptedFactory final : public TURNRelayFactory {
 public:
  std::shared_ptr<TURNRelay> makeRelay(const Endpoint& forClient) override {
    const std::lock_guard guard(lock_);
    RelayPlan plan;
    if (!plans_.empty()) {
      plan = std::move(plans_.front());
      plans_.pop_front();
    }
    clients_.push_back(forClient.port);
    relays_.push_back(std::make_shared<ScriptedRelay>(std::move(plan)));
    return relays_.back();
  }
  /// For the next relay without a plan. Those without any work.
  void plan(RelayPlan plan) {
    const std::lock_guard guard(lock_);
    plans_.push_back(std::move(plan));
  }
  /// For the two attempts of one opening.
  void planFailure() {
    plan({.error = "down"});
    plan({.error = "down"});
  }
  std::size_t made() const { return clients().size(); }
  /// The ports of those for whom relays were made, in that order.
  std::vector<std::uint16_t> clients() const {
    const std::lock_guard guard(lock_);
    return clients_;
  }
  std::shared_ptr<ScriptedRelay> relay(std::size_t number) const {
    const std::lock_guard guard(lock_);
    return relays_.at(number);
  }

 private:
  mutable std::mutex lock_;
  std::deque<RelayPlan> plans_;
  std::vector<std::uint16_t> clients_;
  std::vector<std::shared_ptr<ScriptedRelay>> relays_;
};

/// A running server on a clock that the test moves, with relays that the test scripts.
class ServerFixture : public testing::Test {
 protected:
  ServerFixture() {
    server.debugLog = log.callback();
    server.start();
  }
  ~ServerFixture() override { server.stop(); }

  /// Returns when the server has dealt with all that was sent to it before.
  static void fence(TURNClient& client) {
    ASSERT_TRUE(client.request(client.makeRequest(TURNMethod::refresh)).message);
  }
  static std::string portOf(const TURNClient& client) { return std::to_string(client.localPort()); }

  void advance(std::uint64_t seconds) { clock += seconds * 1'000'000'000; }

  static TURNMessage request(TURNClient& client, std::uint16_t method,
                             const Attributes& attributes = {}) {
    TURNMessage message = client.makeRequest(method);
    for (const auto& [type, value] : attributes) {
      message.append(type, value);
    }
    return message;
  }
  static TURNMessage signedRequest(TURNClient& client, std::uint16_t method,
                                   const Attributes& attributes = {}) {
    TURNMessage message = request(client, method, attributes);
    client.sign(message);
    return message;
  }

  /// A client that has been challenged, so that what it signs is taken.
  std::unique_ptr<TURNClient> newClient() {
    auto client = std::make_unique<TURNClient>(server.boundPort());
    EXPECT_EQ(client->refresh({}).errorCode(), 437);
    return client;
  }
  /// And one that has a relay.
  std::unique_ptr<TURNClient> allocated() {
    auto client = newClient();
    EXPECT_TRUE(client->allocate().success());
    return client;
  }
  /// And one whose relay is being opened until `end` is raised.
  std::unique_ptr<TURNClient> opening(const StopSignal& end) {
    auto client = newClient();
    const std::size_t before = factory->made();
    factory->plan({.gate = &end});
    client->send(signedRequest(*client, TURNMethod::allocate, udp).encode());
    EXPECT_TRUE(eventually([&] { return factory->made() == before + 1; }));
    return client;
  }

  const Attributes udp{{TURNAttr::requestedTransport, {17, 0, 0, 0}}};
  const Endpoint peer = endpointAt("198.51.100.7", 4711);
  const std::string toPeer = "→198.51.100.7:4711 ";
  Log log;
  StopSignal gate;
  const std::shared_ptr<ScriptedFactory> factory = std::make_shared<ScriptedFactory>();
  std::atomic<std::uint64_t> clock{77'000'000'000};
  TURNServer server{
      {"alice", "zkturnd.test", "wonderland"}, "zkturnd.test", factory, false, [this] {
        return clock.load();
      }};
};

}  // namespace zk::test
