#include "zkturn/Advice.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace zk {
namespace {

using Stage = SOCKS5Control::Stage;
using Kind = SOCKS5Error::Kind;
using Cause = SOCKS5Error::Cause;

// What to try where the conversation breaks off, which has more to do with how than with where.
std::string adviceFor(Cause cause, const char* otherwise) {
  switch (cause) {
    case Cause::timedOut:
    case Cause::stopped:
      return "it accepts connections and then hangs: see whether it is overloaded or still "
             "starting, or give it more time with --timeout";
    case Cause::closed:
    case Cause::reset:
      return fmt::format("it may not want this machine's address, or {}", otherwise);
    default:
      return otherwise;
  }
}

}  // namespace

std::string answerIn(const SOCKS5Error& error) {
  switch (error.cause()) {
    case Cause::timedOut:
    case Cause::stopped:
      return "no answer";
    case Cause::closed:
      return "a closed connection";
    case Cause::reset:
      return "a reset connection";
    default:
      break;
  }
  std::string text = error.description();
  for (const std::string_view prefix : {"TCP connect to proxy failed: ", "SOCKS5 protocol error: ",
                                        "auth failed: ", "getaddrinfo: ", "connect: "}) {
    if (text.starts_with(prefix)) {
      text.erase(0, prefix.size());
    }
  }
  constexpr std::string_view lookup = "relay getaddrinfo(";
  if (text.starts_with(lookup)) {
    text = "relay " + text.substr(lookup.size());
    text.erase(text.rfind("): "), 1);
  }
  return text;
}

Failure failureAt(Stage stage, const SOCKS5Error& error, const HostPort& proxy, bool hasLogin) {
  const Cause cause = error.cause();
  Failure failure{Outcome::notReached, "cannot be reached", {}, answerIn(error), {}};
  failure.isTimeout = cause == Cause::timedOut || cause == Cause::stopped;
  switch (stage) {
    case Stage::nameFound:
      failure.asked = fmt::format("looked up \"{}\"", proxy.host);
      failure.tryThis = "check the spelling, or give the proxy's address in numbers";
      break;
    case Stage::connected:
      failure.asked = "asked for a TCP connection";
      failure.tryThis = cause == Cause::refused
                            ? "nothing listens there: check the port, and that the proxy runs"
                            : "check the address and the firewalls on the way; behind a VPN, try "
                              "--via-default";
      break;
    case Stage::methodChosen:
      failure.without = "does not let you in";
      failure.asked = "asked it for a way to log in";
      if (error.kind() == Kind::protocolError) {
        failure.came = fmt::format("an answer that is not SOCKS5 ({})", failure.came);
      }
      failure.tryThis =
          error.kind() != Kind::authFailed
              ? adviceFor(cause,
                          "check that a SOCKS5 proxy serves this port, and not one for HTTP or "
                          "SOCKS4")
          : hasLogin ? "ask its operator which login it takes: only none, or user name and "
                       "password, can be given here"
                     : "give --user and --pass-file";
      break;
    case Stage::loggedIn:
      failure.without = "does not let you in";
      failure.asked = hasLogin ? "sent it user name and password" : "had no login to give it";
      if (hasLogin && error.kind() == Kind::authFailed) {
        failure.code = std::exchange(failure.came, "the proxy refused the login");
      }
      failure.tryThis = !hasLogin ? "give --user and --pass-file"
                                  : adviceFor(cause, "check user name and password");
      break;
    case Stage::associated:
      failure.outcome = failure.isTimeout ? Outcome::notReached : Outcome::carriesNone;
      failure.without =
          failure.isTimeout ? "does not say whether it carries UDP" : "does not carry UDP";
      failure.asked = "asked it for a UDP association";
      failure.tryThis =
          error.kind() == Kind::udpAssociateRejected || cause != Cause::other
              ? adviceFor(cause,
                          "use a proxy that offers UDP ASSOCIATE, or ask its operator to allow it")
              : "ask its operator to have it name an address that its clients reach over IPv4";
      break;
  }
  return failure;
}

Failure failureOfEnd(const std::string& relay, const std::string& end) {
  return {Outcome::carriesNone, "does not carry UDP",
          fmt::format("sent STUN requests through its relay {}", relay),
          "the proxy ended its connection: " + end, "ask its operator whether it allows UDP"};
}

Failure failureOfSilence(const std::string& relay, const std::vector<HostPort>& servers) {
  const auto isElsewhere = [&](const HostPort& server) {
    return server.host != servers.front().host;
  };
  // A dead server must not be taken for a proxy that lets nothing through.
  const bool areSeveral = std::any_of(servers.begin(), servers.end(), isElsewhere);
  Failure failure{
      areSeveral ? Outcome::carriesNone : Outcome::unknown,
      areSeveral ? "does not carry UDP" : "may carry UDP or not",
      fmt::format("sent STUN requests through its relay {} to {}", relay,
                  servers.empty() ? "the well-known servers" : listOf(servers) + " and to others"),
      "no answer",
      areSeveral ? "UDP between here and its relay may be blocked (ask its operator to open it, or "
                   "try --via-default), or the proxy drops it"
                 : "name servers that are known to answer, of two operators, with --stun IP:PORT"};
  failure.isSilence = true;
  return failure;
}

std::string listOf(const std::vector<HostPort>& servers) {
  std::string list;
  for (const HostPort& server : servers) {
    list = fmt::format("{}{}{}", list, list.empty() ? "" : " and ", server.text());
  }
  return list;
}

}  // namespace zk
