#include "Demo/Options.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "Platform/IPv4.h"
#include "Platform/Resolver.h"

namespace zk::demo {
namespace {

struct Endpoint {
  std::string host;
  std::uint16_t port;
};

Endpoint parseEndpoint(const std::string& option, const std::string& text, const char* form) {
  const auto colon = text.rfind(':');
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  if (colon != std::string::npos && colon != 0) {
    const auto parsed = std::from_chars(text.data() + colon + 1, end, port);
    if (parsed.ec == std::errc() && parsed.ptr == end && port != 0) {
      return {text.substr(0, colon), port};
    }
  }
  throw UsageError(option + " wants " + form + ", not \"" + text + "\"");
}

}  // namespace

const char* const usage =
    "usage: zkturnd-demo [--proxy HOST:PORT [--user U --pass P]] [--peer IP:PORT]\n"
    "\n"
    "Starts the daemon, relays ten thousand datagrams in each of the two forms that a client\n"
    "may use, and reports how that went.\n"
    "\n"
    "  --proxy HOST:PORT     relay through this SOCKS5 proxy instead of the demo's own\n"
    "  --user U --pass P     log in to that proxy\n"
    "  --peer IP:PORT        send to this UDP echo service instead of the demo's own\n";

Options parseOptions(int count, char** arguments) {
  Options options;
  std::optional<std::string> user;
  std::optional<std::string> password;
  for (int i = 1; i < count; ++i) {
    const std::string option = arguments[i];
    if (option == "--help" || option == "-h") {
      options.help = true;
      continue;
    }
    if (option != "--proxy" && option != "--user" && option != "--pass" && option != "--peer") {
      throw UsageError("there is no option \"" + option + "\" (see --help)");
    }
    if (i + 1 >= count) {
      throw UsageError(option + " wants a value");
    }
    const std::string value = arguments[++i];
    if (option == "--proxy") {
      Endpoint proxy = parseEndpoint(option, value, "HOST:PORT");
      options.proxy = ProxyChoice{std::move(proxy.host), proxy.port, {}, {}};
    } else if (option == "--peer") {
      Endpoint peer = parseEndpoint(option, value, "IP:PORT");
      if (!isDottedQuad(peer.host)) {
        throw UsageError("--peer wants a dotted IPv4 address, not \"" + peer.host + "\"");
      }
      options.peer = {std::move(peer.host), peer.port};
    } else {
      (option == "--user" ? user : password) = value;
    }
  }
  if (user.has_value() != password.has_value()) {
    throw UsageError("--user and --pass go together");
  }
  if (user) {
    if (!options.proxy) {
      throw UsageError("--user and --pass are for a proxy that --proxy names");
    }
    options.proxy->user = *user;
    options.proxy->password = *password;
  }
  return options;
}

sockaddr_in resolveProxy(const ProxyChoice& proxy) {
  const Resolution found = resolveUDPv4(proxy.host, std::to_string(proxy.port));
  if (found.addresses.empty()) {
    throw UsageError("the proxy " + proxy.host + " has no IPv4 address: " + found.error);
  }
  sockaddr_in address;
  std::memcpy(&address, &found.addresses.front().address, sizeof address);
  return address;
}

}  // namespace zk::demo
