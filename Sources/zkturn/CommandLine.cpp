#include "zkturn/CommandLine.h"

#include <algorithm>
#include <cstdlib>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace zk {
namespace {

// As they are typed; conclude() finds out what they mean.
struct Texts {
  std::string proxy;
  std::string user;
  std::string passFile;
  std::vector<std::string> stunServers;
};

void declareShared(CLI::App& app, ProxyOptions& options, Texts& texts) {
  app.add_option("PROXY", texts.proxy,
                 "HOST:PORT or [IPv6]:PORT, with socks5:// before it or without; left out: the one "
                 "in ~/.config/zkturn/proxy");
  app.add_option("--user", texts.user, "user name for the proxy");
  app.add_option("--pass-file", texts.passFile,
                 "file whose first line is the password; - asks on the terminal");
  app.add_option("--stun", texts.stunServers,
                 "STUN server to ask through the proxy, numeric IP:PORT (default: well-known "
                 "public ones)")
      ->allow_extra_args(false);  // the next word may be PROXY
  app.add_option("--timeout", options.timeoutSeconds, "seconds for each step towards the proxy")
      ->check(CLI::Range(1, 300))
      ->capture_default_str();
  app.add_flag("--via-default", options.viaDefault,
               "let the control connection follow the routes (a VPN's, perhaps) instead of the "
               "physical interface");
}

Endpoint parseServer(const char* option, const std::string& text, std::uint16_t defaultPort) {
  const std::size_t colon = text.find(':');
  const auto address = parseAddress(std::string_view(text).substr(0, colon));
  const auto port = colon == std::string::npos
                        ? std::optional(defaultPort)
                        : parsePort(std::string_view(text).substr(colon + 1));
  if (!address || !port || *port == 0) {
    throw UsageError(
        fmt::format("{} \"{}\" is not a server: give it in numbers, such as 192.0.2.1:{}", option,
                    text, defaultPort == 0 ? 3478 : defaultPort));
  }
  return {*address, *port};
}

// Whatever follows "--" belongs to the command.
std::vector<std::string> takeCommand(std::vector<std::string>& arguments) {
  const auto mark = std::find(arguments.begin(), arguments.end(), "--");
  if (mark == arguments.end()) {
    return {};
  }
  std::vector<std::string> command(mark + 1, arguments.end());
  arguments.erase(mark, arguments.end());
  return command;
}

// As the daemon has them: what does not read "address:port" is left out.
std::vector<Endpoint> serversOfEnvironment() {
  std::vector<Endpoint> servers;
  const char* const list = std::getenv("ZK_STUN_IPS");
  for (const std::string& text : CLI::detail::split(list != nullptr ? list : "", ',')) {
    const auto server = parseHostPort(text);
    const auto address = server ? parseAddress(server->host) : std::nullopt;
    if (address) {
      servers.push_back({*address, server->port});
    }
  }
  return servers;
}

void conclude(ProxyOptions& options, const Texts& texts) {
  if (texts.user.empty() != texts.passFile.empty()) {
    throw UsageError("--user and --pass-file go together: a login needs both");
  }
  if (!texts.proxy.empty()) {
    options.proxy = parseProxy(texts.proxy);
  } else if (!readProxyFile(options)) {
    throw UsageError(
        "no proxy: give HOST:PORT, or write \"address HOST:PORT\" into ~/.config/zkturn/proxy");
  }
  if (!texts.user.empty()) {
    options.user = texts.user;
    options.passFile = texts.passFile;
  }
  if (options.user.has_value() == options.passFile.empty()) {
    throw UsageError("~/.config/zkturn/proxy has one of user and pass-file: a login needs both");
  }
  if (texts.stunServers.empty()) {
    options.stunServers = serversOfEnvironment();
  }
  for (const std::string& text : texts.stunServers) {
    const Endpoint server = parseServer("--stun", text, 0);
    for (const Endpoint& other : options.stunServers) {
      if (other.address == server.address) {
        throw UsageError(fmt::format(
            "--stun names {} twice: a proxy may treat all ports of one address alike, so that only "
            "another address is a second destination",
            server.ip()));
      }
    }
    options.stunServers.push_back(server);
  }
}

}  // namespace

void declareCheck(CLI::App& app, CommandLine& line) {
  app.add_option("--count", line.check.count, "how many round trips to measure")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_option("--idle", line.check.idleSeconds,
                 "seconds of silence that the association is to survive")
      ->check(CLI::Range(0, 3600))
      ->capture_default_str();
  app.add_flag("--json", line.check.asJSON, "print one JSON object instead");
  app.footer(
      "Each of its steps ends within --timeout; all of it takes at most 20 times that, --idle, and "
      "0.02 seconds for each of --count.");
}

void declareRun(CLI::App& app, CommandLine& line) {
  app.footer("The command stands behind --: zkturn run PROXY -- COMMAND [ARGUMENTS]");
  RunOptions& options = line.run;
  app.add_option_function<std::vector<std::string>>(
         "--dns",
         [&options](const std::vector<std::string>& servers) {
           for (const std::string& server : servers) {
             options.dns.push_back(parseServer("--dns", server, 53));
           }
         },
         "name servers to ask through the proxy, numeric IP[:PORT],... (default: well-known public "
         "ones)")
      ->delimiter(',')
      ->allow_extra_args(false);
  app.add_option("--log", options.logFile,
                 "file that gets every connection and every destination that was kept in");
  app.add_flag("--private", options.carriesPrivate,
               "carry private addresses as well, for a proxy that is the way into a network");
  app.add_flag("--quic", options.carriesQUIC,
               "carry QUIC as well, instead of having it do without");
  app.add_flag("--keep-bus", options.keepsBus,
               "leave the session bus within reach, and with it all that sits on it");
  app.add_flag("--as-root", options.asRoot, "run although this is uid 0");
}

const Verb* readCommandLine(std::span<const Verb> verbs, int argc, const char* const* argv,
                            CommandLine& line) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  line.serve.program = argv[0];
  line.run.command = takeCommand(arguments);
  const bool hasCommand = arguments.size() + 1 < static_cast<std::size_t>(argc);

  CLI::App app("Takes programs through a SOCKS5 proxy, and tells what it can do.", "zkturn");
  app.set_version_flag("--version", "zkturn " ZK_VERSION);
  Texts texts;
  for (const Verb& verb : verbs) {
    CLI::App* const sub = app.add_subcommand(verb.name, verb.help);
    declareShared(*sub, line.proxy, texts);
    if (verb.declare != nullptr) {
      verb.declare(*sub, line);
    }
  }
  try {
    std::reverse(arguments.begin(), arguments.end());  // as this parse() wants them
    app.parse(arguments);
  } catch (const CLI::Success& done) {
    app.exit(done);
    return nullptr;
  } catch (const CLI::ParseError& error) {
    // What CLI11 does not understand it repeats, and that may be a login.
    const std::string text = error.what();
    throw UsageError(
        (text.find('@') == std::string::npos ? text : "an argument is not understood") +
        " (--help tells what can be asked)");
  }
  for (const Verb& verb : verbs) {
    if (!app.got_subcommand(verb.name)) {
      continue;
    }
    const bool wantsCommand = verb.declare == declareRun;
    if (wantsCommand && line.run.command.empty()) {
      throw UsageError("no command: it stands behind --, as in zkturn run PROXY -- firefox");
    } else if (!wantsCommand && hasCommand) {
      throw UsageError(fmt::format("{} runs no command: nothing may stand behind --", verb.name));
    }
    conclude(line.proxy, texts);
    return &verb;
  }
  throw UsageError("say what to do: check, serve or run (--help tells more)");
}

}  // namespace zk
