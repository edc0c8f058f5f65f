#include "Loopback/SOCKS5Tunnel.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "Platform/Sockets.h"

namespace zk::loopback {
namespace {

constexpr std::uint8_t succeeded = 0x00;
constexpr std::uint8_t generalFailure = 0x01;
constexpr std::uint8_t hostUnreachable = 0x04;
constexpr std::uint8_t refused = 0x05;

}  // namespace

SOCKS5Tunnel::SOCKS5Tunnel(EventLoop& loop, ConduitPool& conduits, const Endpoint& to,
                           Decided decided)
    : loop_(loop), conduits_(conduits), decided_(std::move(decided)) {
  const sockaddr_in address = to.socketAddress();
  try {
    far_ = TCPSocket::connecting(reinterpret_cast<const sockaddr&>(address), std::nullopt);
    loop_.watch(far_.descriptor(), *this);
    loop_.setInterest(far_.descriptor(), {.writable = true});
  } catch (const std::system_error&) {
    decided_(generalFailure);
  }
}

SOCKS5Tunnel::~SOCKS5Tunnel() {
  if (far_) {
    loop_.unwatch(far_.descriptor());
  }
}

void SOCKS5Tunnel::onWritable() {
  loop_.unwatch(far_.descriptor());
  const auto error = far_.error();
  const Decided decided = std::exchange(decided_, nullptr);  // which may destroy this
  decided(!error ? succeeded : *error == errorText(ECONNREFUSED) ? refused : hostUnreachable);
}

void SOCKS5Tunnel::carry(Descriptor client, std::function<void()> ended) {
  bridge_.emplace(loop_, conduits_, TCPSocket(std::move(client)), std::move(far_),
                  [ended = std::move(ended)](bool /*wasReset*/) { ended(); });
}

}  // namespace zk::loopback
