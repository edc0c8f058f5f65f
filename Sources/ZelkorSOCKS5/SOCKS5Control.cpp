#include "ZelkorSOCKS5/SOCKS5Control.h"

#include <array>
#include <chrono>
#include <system_error>

#include <fmt/format.h>
#include <poll.h>

#include "Platform/Interfaces.h"
#include "Platform/Resolver.h"
#include "Platform/StopSignal.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorSOCKS5/RelayAddress.h"
#include "ZelkorSOCKS5/SOCKS5Handshake.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {
namespace {

using Clock = Deadline::clock;
using Seconds = std::chrono::duration<double>;

// A resolver asks each of its servers for 5 seconds and may need the third. Two openings in a row
// still fit into the 40 seconds for which a TURN client repeats its request.
constexpr Seconds lookupLimit{15};

// A proxy that is gone without a word is noticed within 35 seconds, at the cost of a packet in 20.
constexpr std::chrono::seconds aliveIdle{20};
constexpr std::chrono::seconds aliveInterval{5};
constexpr int aliveProbes = 3;

// How many reads are discarded in one go: a proxy that floods must not hold up the caller.
constexpr int mostReads = 16;

constexpr std::uint8_t version = 0x05;
constexpr std::uint8_t succeeded = 0x00;

Deadline deadlineAfter(Seconds limit) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(limit);
}

const sockaddr& generic(const sockaddr_storage& address) {
  return reinterpret_cast<const sockaddr&>(address);
}

SOCKS5Error::Cause causeOf(const std::error_code& error) {
  using Cause = SOCKS5Error::Cause;
  return error == std::errc::connection_refused ? Cause::refused
         : error == std::errc::connection_reset ? Cause::reset
         : error == std::errc::timed_out        ? Cause::timedOut
         : error == std::errc::host_unreachable || error == std::errc::network_unreachable
             ? Cause::unreachable
             : Cause::other;
}

}  // namespace

SOCKS5Control::SOCKS5Control(std::string host, std::int64_t port,
                             std::optional<std::string> username,
                             std::optional<std::string> password, double timeout,
                             const StopSignal* stop)
    : host_(std::move(host)),
      port_(port),
      username_(std::move(username)),
      password_(std::move(password)),
      timeout_(timeout),
      stop_(stop) {}

void SOCKS5Control::connect(std::optional<bool> viaDefault) {
  const Resolution resolution =
      resolveTCP(host_, std::to_string(port_), deadlineAfter(lookupLimit), stop_);
  failIfStopped();
  if (resolution.addresses.empty()) {
    throw SOCKS5Error::connectionFailed("getaddrinfo: " + resolution.error);
  }
  std::string list;
  for (const ResolvedAddress& address : resolution.addresses) {
    list += (list.empty() ? "" : ", ") + numericText(generic(address.address));
  }
  tell(Stage::nameFound, list);
  std::optional<SOCKS5Error> failure;  // the last one
  for (const ResolvedAddress& address : resolution.addresses) {
    failure = tryAddress(address, viaDefault);
    if (!failure) {
      return;
    }
    failIfStopped();
  }
  throw *failure;
}

// Why that address is not connected to; absent when it is.
std::optional<SOCKS5Error> SOCKS5Control::tryAddress(const ResolvedAddress& address,
                                                     std::optional<bool> viaDefault) {
  const sockaddr& destination = generic(address.address);
  try {
    const auto interface = InterfaceScope::interfaceFor(host_, destination, viaDefault);
    Descriptor socket = openStreamSocket(address.family, interface);
    if (connectSocket(socket.get(), destination, deadlineAfter(Seconds(timeout_)), stop_) !=
        Wait::ready) {
      return SOCKS5Error::connectionFailed("connect: connect timeout",
                                           SOCKS5Error::Cause::timedOut);
    }
    stream_ = TCPSocket(std::move(socket));
    proxyAddress_ = address.address;
    pinnedInterface_ = interface;
    tell(Stage::connected, numericText(destination));
    return std::nullopt;
  } catch (const LookFailed&) {
    throw;  // nobody knows the way to any of the addresses
  } catch (const std::system_error& error) {
    return SOCKS5Error::connectionFailed("connect: " + error.code().message(),
                                         causeOf(error.code()));
  }
}

SOCKS5Control::RelayEndpoint SOCKS5Control::performHandshakeAndUDPAssociate() {
  negotiate();
  // UDP ASSOCIATE, RFC 1928 section 4. The address and port that will send are not announced: they
  // are not known yet, and not what the proxy would see behind a translator.
  writeAll(SOCKS5Request::encode(SOCKS5Request::Command::udpAssociate, {}));
  const Bytes reply = readExactly(4);
  if (reply[0] != version) {
    throw SOCKS5Error::protocolError(fmt::format("reply ver {}", reply[0]));
  }
  if (reply[1] != succeeded) {
    throw SOCKS5Error::udpAssociateRejected(reply[1]);
  }
  std::string answered = readAddress(reply[3]);
  const std::uint16_t port = readUInt16(readExactly(2), 0);
  if (answered == "0.0.0.0") {
    answered.clear();
  }
  const Endpoint address = relayAddress({reply[3], answered, port}, generic(proxyAddress_),
                                        deadlineAfter(lookupLimit), stop_);
  RelayEndpoint relay{answered.empty() ? host_ : answered, port, address};
  tell(Stage::associated, fmt::format("{}:{}", relay.relayHost, port));
  return relay;
}

void SOCKS5Control::negotiate() {
  SOCKS5Handshake handshake(username_, password_);
  writeAll(handshake.message());
  handshake.take(readExactly(SOCKS5Handshake::answerSize));
  tell(Stage::methodChosen, handshake.wantsLogin() ? "user name and password" : "no login");
  if (handshake.wantsLogin()) {
    writeAll(handshake.message());
    handshake.take(readExactly(SOCKS5Handshake::answerSize));
    tell(Stage::loggedIn, "accepted");
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

void SOCKS5Control::watchAlive() {
  keepAlive(descriptor(), aliveIdle, aliveInterval, aliveProbes);
}

void SOCKS5Control::setQuiet(bool isQuiet) {
  keepAlive(descriptor(), aliveIdle, aliveInterval, isQuiet ? 0 : aliveProbes);
  ignoreDistant(descriptor(), isQuiet);
}

std::optional<std::string> SOCKS5Control::takeEnd() {
  std::array<std::uint8_t, 4096> discarded;
  for (int i = 0; stream_ && i < mostReads; ++i) {
    const Transfer came = stream_.receive(discarded);
    switch (came.state) {
      case Transfer::State::moved:
        continue;
      case Transfer::State::blocked:
        return std::nullopt;
      case Transfer::State::ended:
        return "end of stream";
      case Transfer::State::failed:
        return came.error.message();
    }
  }
  return std::nullopt;
}

void SOCKS5Control::writeAll(ByteView bytes) {
  if (!stream_) {
    throw SOCKS5Error::connectionFailed("output nil");
  }
  const Deadline deadline = deadlineAfter(Seconds(timeout_));
  while (!bytes.empty()) {
    await(POLLOUT, deadline);
    bytes = bytes.subspan(octetsOf(stream_.send(bytes), "write"));
  }
}

Bytes SOCKS5Control::readExactly(std::size_t count) {
  if (!stream_) {
    throw SOCKS5Error::connectionFailed("input nil");
  }
  Bytes result(count);
  std::size_t held = 0;
  const Deadline deadline = deadlineAfter(Seconds(timeout_));
  while (held < count) {
    await(POLLIN, deadline);
    const Transfer got = stream_.receive(std::span(result).subspan(held));
    if (got.state == Transfer::State::ended) {
      if (!failsWhenClosed) {
        waitFor(-1, 0, deadline, stop_);
      }
      failIfStopped();
      throw SOCKS5Error::connectionFailed("read timeout", SOCKS5Error::Cause::closed);
    }
    held += octetsOf(got, "read");
  }
  return result;
}

// Returns when the connection is ready for `events`.
void SOCKS5Control::await(short events, Deadline deadline) const {
  const bool reads = events == POLLIN;
  const Wait wait = waitFor(stream_.descriptor(), events, deadline, stop_);
  failIfStopped();
  if (wait == Wait::timedOut) {
    throw SOCKS5Error::connectionFailed(reads ? "read timeout" : "write 0",
                                        SOCKS5Error::Cause::timedOut);
  }
  if (wait == Wait::failed) {
    throw SOCKS5Error::connectionFailed(reads ? "read -1" : "write -1");
  }
}

// How many octets were moved: none where the system was not ready after all.
std::size_t SOCKS5Control::octetsOf(const Transfer& moved, const char* operation) const {
  if (moved.state == Transfer::State::failed) {
    failIfStopped();
    throw SOCKS5Error::connectionFailed(fmt::format("{} -1", operation), causeOf(moved.error));
  }
  return moved.octets;
}

void SOCKS5Control::tell(Stage stage, const std::string& detail) const {
  if (onStage) {
    onStage(*this, stage, detail);
  }
}

void SOCKS5Control::failIfStopped() const {
  if (stop_ != nullptr && stop_->isRaised()) {
    throw SOCKS5Error::connectionFailed("stopped", SOCKS5Error::Cause::stopped);
  }
}

}  // namespace zk
