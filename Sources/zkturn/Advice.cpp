#include "zkturn/Advice.h"

#include <string_view>

#include <fmt/format.h>

namespace zk {
namespace {

using Stage = SOCKS5Control::Stage;

bool holds(const std::string& text, std::string_view piece) {
  return text.find(piece) != std::string::npos;
}

}  // namespace

std::string answerIn(const SOCKS5Error& error) {
  std::string text = error.description();
  for (const std::string_view prefix : {"TCP connect to proxy failed: ", "SOCKS5 protocol error: ",
                                        "auth failed: ", "getaddrinfo: ", "connect: "}) {
    if (text.starts_with(prefix)) {
      text.erase(0, prefix.size());
    }
  }
  constexpr std::string_view lookup = "relay getaddrinfo(";
  if (error.kind() == SOCKS5Error::Kind::connectionFailed && text.starts_with(lookup)) {
    text = "relay " + text.substr(lookup.size());
    text.erase(text.rfind("): "), 1);
  }
  return text == "read timeout"                    ? "no answer, or a closed connection"
         : text == "read -1" || text == "write -1" ? "a reset connection"
         : error.kind() == SOCKS5Error::Kind::protocolError && holds(text, " ver ")
             ? fmt::format("an answer that is not SOCKS5 ({})", text)
             : text;
}

Failure failureAt(Stage stage, const SOCKS5Error& error, const HostPort& proxy, bool hasLogin) {
  const std::string came = answerIn(error);
  switch (stage) {
    case Stage::nameFound:
      return {"cannot be reached", fmt::format("looked up \"{}\"", proxy.host), came,
              "check the spelling, or give the proxy's address in numbers"};
    case Stage::connected:
      return {"cannot be reached", "asked for a TCP connection", came,
              holds(came, "refused")
                  ? "nothing listens there: check the port, and that the proxy runs"
                  : "check the address and the firewalls on the way; behind a VPN, try "
                    "--via-default"};
    case Stage::methodChosen:
      return {"does not let you in", "asked it for a way to log in", came,
              error.kind() != SOCKS5Error::Kind::authFailed
                  ? "check that a SOCKS5 proxy serves this port, and not one for HTTP or SOCKS4"
              : hasLogin ? "ask its operator which login it takes: only none, or user name and "
                           "password, can be given here"
                         : "give --user and --pass-file"};
    case Stage::loggedIn:
      return {"does not let you in",
              hasLogin ? "sent it user name and password" : "had no login to give it", came,
              hasLogin ? "check user name and password" : "give --user and --pass-file"};
    case Stage::associated:
      break;
  }
  return {"does not carry UDP", "asked it for a UDP association", came,
          holds(came, "relay ")
              ? "ask its operator to have it name an address that its clients reach over IPv4"
              : "use a proxy that offers UDP ASSOCIATE, or ask its operator to allow it"};
}

}  // namespace zk
