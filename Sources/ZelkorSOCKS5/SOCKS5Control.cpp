#include "ZelkorSOCKS5/SOCKS5Control.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include "Platform/Resolver.h"
#include "Platform/Sockets.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr Seconds lookAgainAfter{0.02};

constexpr std::uint8_t version = 0x05;
constexpr std::uint8_t noAuthentication = 0x00;
constexpr std::uint8_t usernamePassword = 0x02;
constexpr std::uint8_t noAcceptableMethod = 0xFF;
constexpr std::uint8_t subnegotiationVersion = 0x01;
constexpr std::uint8_t succeeded = 0x00;
constexpr std::size_t longestCredential = 255;

Clock::time_point deadlineAfter(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
}

// The outcome of one connection attempt: a connected socket that blocks, or the reason.
struct Attempt {
  int socket = -1;
  std::string failure;
};

Attempt failed(int socket, std::string reason) {
  if (socket >= 0) {
    closeSocket(socket);
  }
  return {-1, std::move(reason)};
}

Attempt tryAddress(const ResolvedAddress& address, const std::string& host,
                   std::optional<bool> viaDefault, double timeout) {
  const int socket = openSocket(address.family, address.type, address.protocol);
  if (socket < 0) {
    return failed(socket, errorText(errno));
  }
  if (address.family == AF_INET) {
    InterfaceScope::bind(socket, host, viaDefault);
  }
  const int flags = fcntl(socket, F_GETFL);
  fcntl(socket, F_SETFL, flags | O_NONBLOCK);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address.address), address.length) != 0 &&
      errno != EINPROGRESS) {
    return failed(socket, errorText(errno));
  }
  if (pollSocket(socket, POLLOUT, static_cast<int>(timeout * 1000)) < 1) {
    return failed(socket, "connect timeout");
  }
  int error = 0;
  socklen_t length = sizeof error;
  if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
    error = errno;
  }
  if (error != 0) {
    return failed(socket, errorText(error));
  }
  fcntl(socket, F_SETFL, flags);
  return {socket, {}};
}

// A credential's length has one octet.
void requireSendable(const char* name, const std::string& credential) {
  if (credential.size() > longestCredential) {
    throw SOCKS5Error::authFailed(
        fmt::format("{} is {} octets long, at most 255 can be sent", name, credential.size()));
  }
}

}  // namespace

SOCKS5Control::SOCKS5Control(std::string host, std::int64_t port,
                             std::optional<std::string> username,
                             std::optional<std::string> password, double timeout)
    : host_(std::move(host)),
      port_(port),
      username_(std::move(username)),
      password_(std::move(password)),
      timeout_(timeout) {}

void SOCKS5Control::connect(std::optional<bool> viaDefault) {
  const Resolution resolution = resolveTCP(host_, std::to_string(port_));
  if (resolution.addresses.empty()) {
    throw SOCKS5Error::connectionFailed("getaddrinfo: " + resolution.error);
  }
  Attempt attempt;
  for (const ResolvedAddress& address : resolution.addresses) {
    attempt = tryAddress(address, host_, viaDefault, timeout_);
    if (attempt.socket >= 0) {
      break;
    }
  }
  if (attempt.socket < 0) {
    throw SOCKS5Error::connectionFailed("connect: " + attempt.failure);
  }

  auto streams = ByteStreamPair::create(attempt.socket);
  if (!streams) {
    closeSocket(attempt.socket);
    throw SOCKS5Error::connectionFailed("CFStream pair nil");
  }
  streams->open();
  const auto deadline = deadlineAfter(timeout_);
  while (streams->status() == StreamStatus::notOpen && Clock::now() < deadline) {
    std::this_thread::sleep_for(lookAgainAfter);
  }
  if (streams->status() == StreamStatus::error) {
    const std::string& reason = streams->errorDescription();
    throw SOCKS5Error::connectionFailed(reason.empty() ? "stream error" : reason);
  }
  if (streams->status() != StreamStatus::open) {
    throw SOCKS5Error::connectionFailed("connect timeout");
  }
  streams_ = std::move(streams);
}

SOCKS5Control::RelayEndpoint SOCKS5Control::performHandshakeAndUDPAssociate() {
  if (hasCredentials()) {
    requireSendable("user name", *username_);
    requireSendable("password", *password_);
  }
  // Method selection, RFC 1928 section 3.
  writeAll(hasCredentials() ? Bytes{version, 2, noAuthentication, usernamePassword}
                            : Bytes{version, 1, noAuthentication});
  const Bytes choice = readExactly(2);
  if (choice[0] != version) {
    throw SOCKS5Error::protocolError(fmt::format("bad ver {}", choice[0]));
  }
  if (choice[1] == usernamePassword) {
    authenticate();
  } else if (choice[1] == noAcceptableMethod) {
    throw SOCKS5Error::authFailed("server rejected all offered methods");
  } else if (choice[1] != noAuthentication) {
    throw SOCKS5Error::authFailed(fmt::format("server picked method 0x{:x}", choice[1]));
  }

  // UDP ASSOCIATE, RFC 1928 section 4. The address and port that will send are not announced: they
  // are not known yet, and not what the proxy would see behind a translator.
  writeAll(Bytes{version, 0x03, 0x00, SOCKS5AddressType::ipv4, 0, 0, 0, 0, 0, 0});
  const Bytes reply = readExactly(4);
  if (reply[0] != version) {
    throw SOCKS5Error::protocolError(fmt::format("reply ver {}", reply[0]));
  }
  if (reply[1] != succeeded) {
    throw SOCKS5Error::udpAssociateRejected(reply[1]);
  }
  std::string address = readAddress(reply[3]);
  const std::uint16_t port = readUInt16(readExactly(2), 0);
  return {address.empty() || address == "0.0.0.0" ? host_ : std::move(address), port};
}

// RFC 1929.
void SOCKS5Control::authenticate() {
  if (!hasCredentials()) {
    throw SOCKS5Error::authFailed("server wants auth but none provided");
  }
  Bytes request{subnegotiationVersion};
  for (const std::string_view field :
       {std::string_view(*username_), std::string_view(*password_)}) {
    request.push_back(static_cast<std::uint8_t>(field.size()));
    request.insert(request.end(), field.begin(), field.end());
  }
  writeAll(request);

  const Bytes answer = readExactly(2);
  if (answer[0] != subnegotiationVersion) {
    throw SOCKS5Error::protocolError(fmt::format("auth ver {}", answer[0]));
  }
  if (answer[1] != succeeded) {
    throw SOCKS5Error::authFailed(fmt::format("status 0x{:x}", answer[1]));
  }
}

std::string SOCKS5Control::readAddress(std::uint8_t addressType) {
  switch (addressType) {
    case SOCKS5AddressType::ipv4:
      return fmt::format("{}", fmt::join(readExactly(4), "."));
    case SOCKS5AddressType::domainName: {
      const std::size_t length = readExactly(1)[0];
      return domainNameText(readExactly(length));
    }
    case SOCKS5AddressType::ipv6:
      return ipv6Text(readExactly(16));
    default:
      throw SOCKS5Error::protocolError(fmt::format("unsupported ATYP {}", addressType));
  }
}

void SOCKS5Control::writeAll(ByteView bytes) {
  if (!streams_) {
    throw SOCKS5Error::connectionFailed("output nil");
  }
  while (!bytes.empty()) {
    const std::ptrdiff_t written = streams_->write(bytes);
    if (written <= 0) {
      throw SOCKS5Error::connectionFailed(fmt::format("write {}", written));
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

Bytes SOCKS5Control::readExactly(std::size_t count) {
  if (!streams_) {
    throw SOCKS5Error::connectionFailed("input nil");
  }
  Bytes result(count);
  std::size_t held = 0;
  const auto deadline = deadlineAfter(timeout_);
  while (held < count) {
    if (Clock::now() > deadline) {
      throw SOCKS5Error::connectionFailed("read timeout");
    }
    const std::ptrdiff_t got = streams_->read(std::span(result).subspan(held), deadline);
    if (got < 0) {
      throw SOCKS5Error::connectionFailed(fmt::format("read {}", got));
    }
    if (got == 0) {
      std::this_thread::sleep_for(lookAgainAfter);
    }
    held += static_cast<std::size_t>(got);
  }
  return result;
}

void SOCKS5Control::close() {
  if (streams_) {
    streams_->close();
    streams_.reset();
  }
}

}  // namespace zk
