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

// The address stands as in the header of a datagram.
Bytes SOCKS5Request::encode(Command command, const Endpoint& to) {
  const auto header = SOCKS5UDPFrame::header(to);
  Bytes request(header.begin(), header.end());
  request[0] = version;
  request[1] = static_cast<std::uint8_t>(command);
  return request;
}

std::size_t SOCKS5Request::replySize(ByteView start) {
  constexpr std::size_t head = 5;  // as far as the length of a domain name
  if (!start.empty() && start[0] != version) {
    throw SOCKS5Error::protocolError(fmt::format("reply ver {}", start[0]));
  }
  if (start.size() < head) {
    return head;
  }
  const auto addressSize = SOCKS5AddressType::size(start[3], start[4]);
  if (!addressSize) {
    throw SOCKS5Error::protocolError(fmt::format("unsupported ATYP {}", start[3]));
  }
  return 4 + *addressSize + 2;
}

}  // namespace zk
