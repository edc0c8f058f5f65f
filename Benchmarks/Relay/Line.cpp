#include "Line.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "Base/IPv4.h"
#include "Loopback/SOCKS5Frame.h"
#include "Platform/Clock.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t channel = 0x4000;
constexpr std::size_t channelHeaderSize = 4;
const TURNAttributes::Address peer{"203.0.113.7", 3478};

constexpr std::uint32_t marker = UINT32_MAX;

struct Stamp {
  std::uint64_t sentAt;
  std::uint32_t run;
  std::uint32_t number;
};

}  // namespace

void pace(std::chrono::milliseconds duration, unsigned perMillisecond,
          const std::function<void()>& action) {
  const auto start = Clock::now();
  for (auto at = start; at < start + duration; at += 1ms) {
    std::this_thread::sleep_until(at);
    for (unsigned i = 0; i < perMillisecond; ++i) {
      action();
    }
  }
}

World::World(const std::string& binary, bool withSTUN)
    : daemon(binary, withSTUN ? ChildProcess::Environment{{"ZK_STUN_IPS", stun.target()}}
                              : ChildProcess::Environment{}),
      port(daemon.serve({.proxyPort = proxy.port(),
                         .proxyUser = script.login->user,
                         .proxyPassword = script.login->password})) {}

double Seen::percentile(double share) const {
  return delays.empty()
             ? 0
             : delays[static_cast<std::size_t>(share * static_cast<double>(delays.size() - 1))];
}

Seen& Seen::operator+=(const Seen& other) {
  sent += other.sent;
  lost += other.lost;
  delays.insert(delays.end(), other.delays.begin(), other.delays.end());
  std::sort(delays.begin(), delays.end());
  return *this;
}

void Ledger::stamp(std::uint8_t* payload, bool isMarker) {
  const std::lock_guard guard(lock_);
  const Stamp stamp{monotonicNanoseconds(), run_,
                    isMarker ? marker : static_cast<std::uint32_t>(delays_.size())};
  if (!isMarker) {
    delays_.push_back(-1);
  }
  std::memcpy(payload, &stamp, sizeof stamp);
}

void Ledger::take(ByteView payload) {
  const std::uint64_t now = monotonicNanoseconds();
  Stamp stamp{};
  if (payload.size() < sizeof stamp) {
    return;
  }
  std::memcpy(&stamp, payload.data(), sizeof stamp);
  const std::lock_guard guard(lock_);
  marked_ = marked_ || (stamp.run == run_ && stamp.number == marker);
  if (stamp.run == run_ && stamp.number < delays_.size() && delays_[stamp.number] < 0) {
    delays_[stamp.number] = static_cast<float>(now - stamp.sentAt) / 1e6F;
    ++arrived_;
  }
}

void Ledger::reset() {
  const std::lock_guard guard(lock_);
  ++run_;
  delays_.clear();
  arrived_ = 0;
  marked_ = false;
}

Seen Ledger::seen() const {
  const std::lock_guard guard(lock_);
  Seen seen{delays_.size(), delays_.size() - arrived_, {}};
  std::copy_if(delays_.begin(), delays_.end(), std::back_inserter(seen.delays),
               [](float delay) { return delay >= 0; });
  std::sort(seen.delays.begin(), seen.delays.end());
  return seen;
}

bool Ledger::isMarked() const {
  const std::lock_guard guard(lock_);
  return marked_;
}

Line::Line(World& world, KitSocket far, const std::string& farIP)
    : client_(world.port),
      far_(
          [this](std::span<std::uint8_t> frame, const sockaddr_in& from) {
            const std::lock_guard guard(lock_);
            relay_ = from;
            up_.take(frame.subspan(std::min(frame.size(), socks5HeaderSize)));
            return false;
          },
          std::move(far)) {
  SOCKS5Script script = world.script;
  script.announceIPv4(farIP);
  script.announcePort = far_.port();
  world.proxy.setScript(script);
  client_.setTimeout(100s);
  if (!client_.allocate().success() || !client_.bindChannel(channel, peer).success()) {
    throw std::runtime_error("the daemon gave no relay");
  }
  world.proxy.setScript(world.script);
  setBlocking(client_.socket(), 50ms);
  receiver_ = std::thread([this] { receive(); });
  sendUp(16);  // tells the far side where the relay is
  settle(1s);
}

Line::~Line() {
  ending_ = true;
  receiver_.join();
}

void Line::receive() {
  std::array<std::uint8_t, 65536> buffer;
  while (!ending_) {
    const ssize_t count = recv(client_.socket(), buffer.data(), buffer.size(), 0);
    if (count > static_cast<ssize_t>(channelHeaderSize)) {
      down_.take(
          ByteView(buffer).first(static_cast<std::size_t>(count)).subspan(channelHeaderSize));
    }
  }
}

void Line::sendUp(std::size_t payload, bool isMarker) {
  Bytes content(payload);
  up_.stamp(content.data(), isMarker);
  client_.sendChannelData(channel, content);
}

void Line::sendDown(std::size_t payload, bool isMarker) {
  Bytes frame = socks5Frame(socketAddress(peer.ip, peer.port), Bytes(payload));
  down_.stamp(&frame[socks5HeaderSize], isMarker);
  const std::lock_guard guard(lock_);
  far_.socket().send(frame, relay_);
}

void Line::talk(std::chrono::milliseconds duration) {
  pace(duration, 1, [this] {
    sendUp(200);
    sendDown(200);
  });
}

Seen Line::settle(std::chrono::milliseconds longest) {
  const auto deadline = Clock::now() + longest;
  while (!(up_.isMarked() && down_.isMarked()) && Clock::now() < deadline) {
    sendUp(200, true);
    sendDown(200, true);
    std::this_thread::sleep_for(20ms);
  }
  Seen seen = up_.seen();
  seen += down_.seen();
  up_.reset();
  down_.reset();
  return seen;
}

}  // namespace zk::bench
