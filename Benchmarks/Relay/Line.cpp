#include "Line.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "Loopback/SOCKS5Frame.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t channel = 0x4000;
const Endpoint peer = endpointAt("203.0.113.7", 3478);

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

void SharedLedger::stamp(std::uint8_t* payload, bool isMarker) {
  const std::lock_guard guard(lock_);
  isMarker ? ledger_.stampMarker(payload) : ledger_.stamp(payload);
}

void SharedLedger::take(ByteView payload) {
  const std::lock_guard guard(lock_);
  ledger_.take(payload);
}

bool SharedLedger::isMarked() const {
  const std::lock_guard guard(lock_);
  return ledger_.isMarked();
}

LoadResult SharedLedger::close() {
  const std::lock_guard guard(lock_);
  return ledger_.close();
}

Line::Line(World& world, KitSocket far, const std::string& farIP)
    : client_(world.port),
      far_(
          [this](std::span<std::uint8_t> frame, const Endpoint& from) {
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
  Bytes frame = socks5Frame(peer, Bytes(payload));
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

LoadResult Line::settle(std::chrono::milliseconds longest) {
  const auto deadline = Clock::now() + longest;
  while (!(up_.isMarked() && down_.isMarked()) && Clock::now() < deadline) {
    sendUp(200, true);
    sendDown(200, true);
    std::this_thread::sleep_for(20ms);
  }
  LoadResult seen = up_.close();
  seen += down_.close();
  return seen;
}

}  // namespace zk::bench
