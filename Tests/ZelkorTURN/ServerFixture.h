#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Loopback/TURNClient.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorTURN/TURNServer.h"

namespace zk::test {

using loopback::TURNAnswer;
using loopback::TURNClient;
using loopback::TURNData;
using std::chrono::milliseconds;

inline constexpr milliseconds patience{10'000};  // for what must come
inline constexpr milliseconds aMoment{150};      // for what must not

inline Bytes bytes(std::string_view text) {
  const ByteView view = bytesOf(text);
  return {view.begin(), view.end()};
}

/// Lines from many threads, for one that waits for them.
class Log {
 public:
  void append(std::string_view line) {
    const std::lock_guard guard(lock_);
    lines_.emplace_back(line);
    changed_.notify_all();
  }

  std::vector<std::string> lines() const {
    const std::lock_guard guard(lock_);
    return lines_;
  }

  std::size_t count(const std::string& piece) const {
    const std::lock_guard guard(lock_);
    return countLocked(piece);
  }

  /// Whether `times` lines that contain `piece` have come in time.
  bool waitFor(const std::string& piece, std::size_t times = 1) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, patience, [&] { return countLocked(piece) >= times; });
  }

  void clear() {
    const std::lock_guard guard(lock_);
    lines_.clear();
  }

 private:
  std::size_t countLocked(const std::string& piece) const {
    return static_cast<std::size_t>(std::count_if(
        lines_.begin(), lines_.end(),
        [&](const std::string& line) { return line.find(piece) != std::string::npos; }));
  }

  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

/// What a relay of the test does when the server opens it.
struct RelayPlan {
  std::string ip = "192.0.2.10";
  std::uint16_t port = 7000;
  std::string error{};        // not empty: the opening throws this
  bool receiveFails = false;  // receive() finds no thread
  bool sendFails = false;
  std::shared_future<void> gate{};  // the opening waits for it
};

/// A relay without a network. Everything it is asked for is written down.
class ScriptedRelay final : public TURNRelay {
 public:
  struct Sent {
    Bytes payload;
    std::string ip;
    std::uint16_t port = 0;
  };

  explicit ScriptedRelay(RelayPlan plan) : plan_(std::move(plan)) {}

  RelayedAddress allocateRelay() override {
    {
      const std::lock_guard guard(lock_);
      overrideWhileOpening_ = InterfaceScope::modeOverride;
    }
    if (plan_.gate.valid()) {
      plan_.gate.wait();
    }
    if (!plan_.error.empty()) {
      throw std::runtime_error(plan_.error);
    }
    return {plan_.ip, plan_.port};
  }

  void sendAll(std::span<const PeerDatagram> datagrams) override {
    if (InterfaceScope::modeOverride) {
      overrideLeftBehind = true;
    }
    {
      const std::lock_guard guard(lock_);
      bursts_.push_back(datagrams.size());
      for (const auto& [payload, ip, port] : datagrams) {
        sent_.push_back({{payload.begin(), payload.end()}, ip, port});
      }
    }
    if (plan_.sendFails) {
      throw std::runtime_error("refused");
    }
  }

  void receive(Handler handler) override {
    if (plan_.receiveFails) {
      throw std::runtime_error("no thread");
    }
    const std::lock_guard guard(lock_);
    handler_ = std::move(handler);
  }

  void close() override { ++closed; }

  /// A datagram from a peer, on the test's thread as if it were the relay's own.
  void arrive(ByteView payload, const std::string& ip, std::uint16_t port) {
    arrive({{payload, ip, port}});
  }
  void arrive(const std::vector<PeerDatagram>& burst) { handler()(burst); }

  Handler handler() const {
    const std::lock_guard guard(lock_);
    return handler_;
  }

  std::vector<Sent> sent() const {
    const std::lock_guard guard(lock_);
    return sent_;
  }

  /// How many datagrams each call of sendAll() had.
  std::vector<std::size_t> bursts() const {
    const std::lock_guard guard(lock_);
    return bursts_;
  }

  /// What InterfaceScope::modeOverride was then.
  std::optional<bool> overrideWhileOpening() const {
    const std::lock_guard guard(lock_);
    return overrideWhileOpening_;
  }

  std::atomic<int> closed{0};
  std::atomic<bool> overrideLeftBehind{false};  // when something was sent

 private:
  const RelayPlan plan_;
  mutable std::mutex lock_;
  std::optional<bool> overrideWhileOpening_;
  Handler handler_;
  std::vector<Sent> sent_;
  std::vector<std::size_t> bursts_;
};

class ScriptedFactory final : public TURNRelayFactory {
 public:
  std::shared_ptr<TURNRelay> makeRelay(const FiveTuple& forClient) override {
    const std::lock_guard guard(lock_);
    RelayPlan plan;
    if (!plans_.empty()) {
      plan = std::move(plans_.front());
      plans_.pop_front();
    }
    clients_.push_back(forClient);
    relays_.push_back(std::make_shared<ScriptedRelay>(std::move(plan)));
    return relays_.back();
  }

  /// The next relay without a plan of its own gets this one.
  void plan(RelayPlan plan) {
    const std::lock_guard guard(lock_);
    plans_.push_back(std::move(plan));
  }

  std::size_t made() const {
    const std::lock_guard guard(lock_);
    return relays_.size();
  }
  std::shared_ptr<ScriptedRelay> relay(std::size_t number) const {
    const std::lock_guard guard(lock_);
    return relays_.at(number);
  }
  FiveTuple client(std::size_t number) const {
    const std::lock_guard guard(lock_);
    return clients_.at(number);
  }

 private:
  mutable std::mutex lock_;
  std::deque<RelayPlan> plans_;
  std::vector<FiveTuple> clients_;
  std::vector<std::shared_ptr<ScriptedRelay>> relays_;
};

/// A running server on a clock that the test moves, with relays that the test scripts.
class ServerFixture : public testing::Test {
 protected:
  ServerFixture() {
    server->debugLog = [log = log](std::string_view line) { log->append(line); };
  }
  ~ServerFixture() override { server->stop(); }

  /// Returns when the server has dealt with all that was sent to it before.
  static void fence(TURNClient& client) {
    ASSERT_TRUE(client.request(client.makeRequest(TURNMethod::refresh)).message);
  }

  static std::string portOf(const TURNClient& client) { return std::to_string(client.localPort()); }

  void advance(std::uint64_t seconds) { *clock += seconds * 1'000'000'000; }

  const std::shared_ptr<Log> log = std::make_shared<Log>();
  const std::shared_ptr<ScriptedFactory> factory = std::make_shared<ScriptedFactory>();
  const std::shared_ptr<std::atomic<std::uint64_t>> clock =
      std::make_shared<std::atomic<std::uint64_t>>(77'000'000'000);
  std::shared_ptr<TURNServer> server = std::make_shared<TURNServer>(
      Credentials{"alice", "zkturnd.test", "wonderland"}, "zkturnd.test", factory,
      [clock = clock] { return clock->load(); });
};

}  // namespace zk::test
