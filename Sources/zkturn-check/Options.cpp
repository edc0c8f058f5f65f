#include "zkturn-check/Options.h"

#include <charconv>
#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Base/IPv4.h"

namespace zk::check {
namespace {

constexpr std::size_t longestCredential = 255;  // RFC 1929: its length has one octet

// HOST:PORT, where a host that has colons itself stands in brackets. Absent for anything else.
std::optional<Endpoint> parseEndpoint(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    return std::nullopt;
  }
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.empty() || host.find_first_of(":[]") != std::string::npos) {
    return std::nullopt;
  }
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data() + colon + 1, end, port);
  if (error != std::errc{} || stopped != end || port == 0) {
    return std::nullopt;
  }
  return Endpoint{host, port};
}

std::string readPassword(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string password;
  if (!file || (!std::getline(file, password) && !file.eof())) {
    throw std::runtime_error(fmt::format(
        "--pass-file \"{}\" cannot be read: name a file that holds the password", path));
  }
  if (!password.empty() && password.back() == '\r') {
    password.pop_back();
  }
  return password;
}

void requireSendable(const char* what, const std::string& credential) {
  if (credential.size() > longestCredential) {
    throw std::runtime_error(fmt::format(
        "the {} has {} octets, and a SOCKS5 proxy takes 255 at most", what, credential.size()));
  }
}

}  // namespace

std::string Endpoint::text() const {
  const bool hasColons = host.find(':') != std::string::npos;
  return hasColons ? fmt::format("[{}]:{}", host, port) : fmt::format("{}:{}", host, port);
}

std::optional<Options> readOptions(int argc, const char* const* argv) {
  Options options;
  std::string proxy;
  std::string passwordFile;
  std::vector<std::string> stunServers;

  CLI::App app(
      "Tells whether a SOCKS5 proxy carries UDP, and how well. Addresses nothing but the "
      "proxy; a name is asked of the system's resolver.");
  app.add_option("proxy", proxy, "the proxy: HOST:PORT, [IPv6]:PORT")->required();
  app.add_option("--user", options.user, "user name for the proxy");
  app.add_option("--pass-file", passwordFile, "file whose first line is the password");
  app.add_option(
         "--stun", stunServers,
         "STUN server to ask through the proxy, numeric IP:PORT; a second one shows whether "
         "all destinations see the same port (default: well-known public ones)")
      ->expected(1)
      ->take_all();
  app.add_option("--count", options.count, "how many round trips to measure")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_option("--idle", options.idleSeconds,
                 "seconds of silence that the association is to survive")
      ->check(CLI::Range(0, 3600))
      ->capture_default_str();
  app.add_option("--timeout", options.timeoutSeconds,
                 "seconds to wait for each answer of the proxy")
      ->check(CLI::Range(1, 300))
      ->capture_default_str();
  app.add_flag("--via-default", options.viaDefault,
               "follow the routes (a VPN's, perhaps) instead of the physical interface");
  app.add_flag("--json", options.asJSON, "print one JSON object instead");
  app.set_version_flag("--version", "zkturn-check " ZK_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {
    app.exit(done);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw std::runtime_error(fmt::format("{} (--help tells what can be asked)", error.what()));
  }

  if (const auto parsed = parseEndpoint(proxy)) {
    options.proxy = *parsed;
  } else {
    throw std::runtime_error(fmt::format(
        "\"{}\" is not a proxy: give HOST:PORT with a port of 1 to 65535, such as 10.0.0.1:1080",
        proxy));
  }
  if (options.user.has_value() != !passwordFile.empty()) {
    throw std::runtime_error("--user and --pass-file go together: a login needs both");
  }
  if (options.user) {
    options.password = readPassword(passwordFile);
    requireSendable("user name", *options.user);
    requireSendable("password", *options.password);
  }
  if (stunServers.size() > 2) {
    throw std::runtime_error("--stun is taken twice at most");
  }
  for (const std::string& server : stunServers) {
    const auto parsed = parseEndpoint(server);
    if (!parsed || !isDottedQuad(parsed->host)) {
      throw std::runtime_error(fmt::format(
          "--stun \"{}\" is not a server: give IPv4:PORT in numbers, such as 192.0.2.1:3478",
          server));
    }
    options.stunServers.push_back(*parsed);
  }
  return options;
}

}  // namespace zk::check
