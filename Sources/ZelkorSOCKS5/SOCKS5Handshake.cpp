#include "ZelkorSOCKS5/SOCKS5Handshake.h"

#include <string_view>

#include <fmt/format.h>

#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {
namespace {

constexpr std::uint8_t version = 0x05;
constexpr std::uint8_t noAuthentication = 0x00;
constexpr std::uint8_t usernamePassword = 0x02;
constexpr std::uint8_t noAcceptableMethod = 0xFF;
constexpr std::uint8_t subnegotiationVersion = 0x01;
constexpr std::uint8_t succeeded = 0x00;
constexpr std::size_t longestCredential = 255;

}  // namespace

void requireSendable(const char* name, const std::string& credential) {
  if (credential.size() > longestCredential) {
    throw SOCKS5Error::authFailed(
        fmt::format("{} is {} octets long, at most 255 can be sent", name, credential.size()));
  }
}

SOCKS5Handshake::SOCKS5Handshake(const std::optional<std::string>& username,
                                 const std::optional<std::string>& password)
    : username_(username), password_(password) {
  if (hasCredentials()) {
    requireSendable("user name", *username_);
    requireSendable("password", *password_);
  }
}

Bytes SOCKS5Handshake::message() const {
  if (!wantsLogin_) {
    return hasCredentials() ? Bytes{version, 2, noAuthentication, usernamePassword}
                            : Bytes{version, 1, noAuthentication};
  }
  if (!hasCredentials()) {
    throw SOCKS5Error::authFailed("server wants auth but none provided");
  }
  Bytes request{subnegotiationVersion};
  for (const std::string_view field :
       {std::string_view(*username_), std::string_view(*password_)}) {
    request.push_back(static_cast<std::uint8_t>(field.size()));
    request.insert(request.end(), field.begin(), field.end());
  }
  return request;
}

void SOCKS5Handshake::take(ByteView answer) {
  if (!wantsLogin_) {
    takeMethod(answer);
    return;
  }
  if (answer[0] != subnegotiationVersion) {
    throw SOCKS5Error::protocolError(fmt::format("auth ver {}", answer[0]));
  }
  if (answer[1] != succeeded) {
    throw SOCKS5Error::authFailed(fmt::format("status 0x{:x}", answer[1]));
  }
  isDone_ = true;
}

void SOCKS5Handshake::takeMethod(ByteView choice) {
  if (choice[0] != version) {
    throw SOCKS5Error::protocolError(fmt::format("bad ver {}", choice[0]));
  }
  switch (choice[1]) {
    case noAuthentication:
      isDone_ = true;
      break;
    case usernamePassword:
      wantsLogin_ = true;
      break;
    case noAcceptableMethod:
      throw SOCKS5Error::authFailed("server rejected all offered methods");
    default:
      throw SOCKS5Error::authFailed(fmt::format("server picked method 0x{:x}", choice[1]));
  }
}

Bytes SOCKS5Request::encode(Command command, const Endpoint& to) {
  Bytes request{version, static_cast<std::uint8_t>(command), 0x00, SOCKS5AddressType::ipv4};
  const auto octets = to.octets();
  request.insert(request.end(), octets.begin(), octets.end());
  request.push_back(static_cast<std::uint8_t>(to.port >> 8));
  request.push_back(static_cast<std::uint8_t>(to.port));
  return request;
}

std::size_t SOCKS5Request::replySize(ByteView start) {
  constexpr std::size_t head = 5;  // as far as the length of a domain name
  constexpr std::size_t portSize = 2;
  if (!start.empty() && start[0] != version) {
    throw SOCKS5Error::protocolError(fmt::format("reply ver {}", start[0]));
  }
  if (start.size() < head) {
    return head;
  }
  switch (start[3]) {
    case SOCKS5AddressType::ipv4:
      return 4 + 4 + portSize;
    case SOCKS5AddressType::ipv6:
      return 4 + 16 + portSize;
    case SOCKS5AddressType::domainName:
      return head + start[4] + portSize;
    default:
      throw SOCKS5Error::protocolError(fmt::format("unsupported ATYP {}", start[3]));
  }
}

}  // namespace zk
