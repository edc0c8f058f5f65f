// Shows the daemon at work: starts it as a parent process does, gets a relay through a SOCKS5 proxy
// and sends datagrams to an echoing peer and back.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/Load.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/TURNClient.h"
#include "Platform/Resolver.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk::demo {
namespace {

using namespace std::chrono_literals;
using loopback::CallLeg;

constexpr std::uint64_t datagramsPerForm = 10000;
constexpr std::uint16_t channel = 0x4000;
constexpr std::size_t payloadSize = 160;  // about one packet of speech
constexpr unsigned windowSize = 16;       // few enough that no buffer on the road overflows
// Two attempts, each with name resolution, connecting, four reads and the search for the egress
// address, all with their own limits.
constexpr auto openPatience = 120s;
constexpr const char* daemonLog = "/tmp/zkturnd.log";

/// The demonstration cannot go on; what() says why in one sentence.
using Failure = std::runtime_error;

struct Options {
  std::string proxy;
  std::string user;
  std::string password;
  std::string peer;
};

/// What is wrong with a HOST:PORT; nothing when the text is empty.
std::string checkHostPort(const std::string& text) {
  return parseHostPort(text) ? "" : "\"" + text + "\" is not of the form HOST:PORT";
}

std::string checkEndpoint(const std::string& text) {
  const auto parsed = parseHostPort(text);
  return !parsed || parseAddress(parsed->host) ? checkHostPort(text)
                                               : "\"" + parsed->host + "\" is not an IPv4 address";
}

/// The first IPv4 address of the proxy.
Endpoint resolve(const HostPort& proxy) {
  const Resolution found =
      resolveUDPv4(proxy.host, std::to_string(proxy.port), Deadline::max(), nullptr);
  if (found.addresses.empty()) {
    throw CLI::ValidationError(
        fmt::format("the proxy {} has no IPv4 address: {}", proxy.host, found.error));
  }
  return Endpoint::of(reinterpret_cast<const sockaddr_in&>(found.addresses.front().address));
}

/// Replaces the current line of the terminal; does nothing when standard output is none.
void showPassingLine(const std::string& text) {
  static const bool terminal = isatty(STDOUT_FILENO) == 1;
  if (terminal) {
    fmt::print("\r\033[K{}", text);
    std::fflush(stdout);
  }
}

void requireSuccess(const loopback::TURNAnswer& answer, const char* what) {
  if (!answer.message) {
    throw Failure(fmt::format("the daemon did not answer {}", what));
  }
  if (!answer.success()) {
    throw Failure(fmt::format("the daemon answered {} with error {}", what, answer.errorCode()));
  }
}

/// Why the daemon could not open the relay of the client at that port, as its log has it behind
/// `from`. Waits a little, as the log is written behind the answers.
std::string failureReason(std::uint16_t clientPort, std::uintmax_t from) {
  const std::string attempt = fmt::format("relay OPEN attempt for 127.0.0.1:{}", clientPort);
  static const std::string failed = "relay OPEN FAILED both rungs: ";
  std::string reason;
  for (int tries = 0; reason.empty() && tries < 50; ++tries) {
    std::this_thread::sleep_for(20ms);
    std::ifstream log(daemonLog);
    log.seekg(static_cast<std::streamoff>(from));
    bool ours = false;
    for (std::string line; std::getline(log, line);) {
      ours = ours || line.find(attempt) != std::string::npos;
      if (const auto at = line.find(failed); ours && at != std::string::npos) {
        reason = line.substr(at + failed.size());
      }
    }
  }
  return reason.empty() ? fmt::format("see {}", daemonLog) : reason;
}

loopback::LoadResult exchange(const char* label, const CallLeg& leg, std::uint64_t count) {
  unsigned shown = 101;
  auto result = loopback::runLoad(
      {leg}, {.payload = payloadSize,
              .outstanding = windowSize,
              .count = count,
              .patience = 2s,
              .progress = [&](std::uint64_t done) {
                const auto percent = static_cast<unsigned>(done * 100 / count);
                if (percent != shown) {
                  shown = percent;
                  showPassingLine(fmt::format("{:<17} [{:#<{}}{: <{}}] {:3} %", label, "",
                                              percent * 2 / 5, "", 40 - percent * 2 / 5, percent));
                }
              }});
  showPassingLine("");
  return result;
}

void report(const char* label, const loopback::LoadResult& result) {
  fmt::print("{:<17} {} sent, {} lost", label, result.sent,
             result.losses() == 0 ? "none" : std::to_string(result.losses()));
  if (result.strange > 0) {
    fmt::print(", {} unexpected", result.strange);
  }
  fmt::print("; round trip p50 {:.0f} us, p90 {:.0f} us, p99 {:.0f} us, max {:.0f} us ({:.2f} s)\n",
             result.percentile(0.50), result.percentile(0.90), result.percentile(0.99),
             result.percentile(1), result.seconds);
}

void run(const Options& options) {
  loopback::DaemonConfig config;
  config.credential = std::to_string(std::random_device{}());
  config.realm = "zkturnd.demo";
  loopback::STUNResponder stun;
  std::unique_ptr<loopback::SOCKS5Server> ownProxy;
  std::string here = "127.0.0.1";  // where the proxy reaches this machine
  bool onLoopback = true;
  if (options.proxy.empty()) {
    ownProxy = std::make_unique<loopback::SOCKS5Server>();
    config.proxyPort = ownProxy->port();
  } else {
    const HostPort proxy = parseHostPort(options.proxy).value();
    config.proxyHost = proxy.host;
    config.proxyPort = proxy.port;
    config.proxyUser = options.user;
    config.proxyPassword = options.password;
    const Endpoint address = resolve(proxy);
    onLoopback = address.address >> 24 == 127;
    const auto towards = loopback::KitSocket::boundUDP("0.0.0.0");
    towards.connectTo(address);
    here = towards.localAddress().ip();
  }
  const std::string proxyText =
      HostPort{config.proxyHost, static_cast<std::uint16_t>(config.proxyPort)}.text();
  std::unique_ptr<loopback::EchoPeer> echo;
  if (options.peer.empty()) {
    echo = std::make_unique<loopback::EchoPeer>(here);
  }
  const auto asked = parseHostPort(options.peer).value_or(HostPort{});
  const Endpoint peer = echo ? echo->endpoint() : loopback::endpointAt(asked.host, asked.port);

  std::error_code none;
  const auto logged = std::filesystem::file_size(daemonLog, none);
  loopback::ChildProcess::Environment environment;
  if (onLoopback) {  // from there no public STUN server would see an address that is of use
    environment["ZK_STUN_IPS"] = stun.target();
  }
  loopback::DaemonProcess daemon(loopback::programBeside("zkturnd"), environment);
  const std::uint16_t port = daemon.serve(config);
  loopback::TURNClient client(port, {config.username, config.credential});
  showPassingLine("opening a relay through " + proxyText);
  client.setTimeout(openPatience);
  const auto answer = client.allocate();
  showPassingLine("");
  if (answer.errorCode() == TURNAttributes::serverError.code) {
    throw Failure(fmt::format("no relay through {}: {}", proxyText,
                              failureReason(client.localPort(), none ? 0 : logged)));
  }
  requireSuccess(answer, "Allocate");
  requireSuccess(client.createPermission(peer), "CreatePermission");
  const CallLeg indications = CallLeg::indications(client, peer);
  // Some datagrams ahead of all words, so that a proxy that opens a relay and forwards nothing is
  // told of in one sentence like any other that is of no use.
  const auto first = exchange("first datagrams", indications, windowSize);
  if (first.roundTrips() == 0) {
    throw Failure(fmt::format("the relay opened, but no datagram came back from {} through {}{}",
                              peer.text(), proxyText,
                              echo ? "; name an echo service that it can reach with --peer" : ""));
  }
  fmt::print("daemon:           process {}, TURN on 127.0.0.1:{}\n", daemon.pid(), port);
  fmt::print("proxy:            {}{}\n", proxyText, ownProxy ? " (the demo's own)" : "");
  fmt::print("peer:             {}{}\n", peer.text(), echo ? " (the demo's own echo)" : "");
  fmt::print("relayed address:  {}\n", answer.relayedAddress().value_or(Endpoint{}).text());
  fmt::print("sending:          {} datagrams of {} octets each way, {} under way at a time\n",
             2 * datagramsPerForm, payloadSize, windowSize);
  const auto sent = exchange("Send indications:", indications, datagramsPerForm);
  report("Send indications:", sent);
  requireSuccess(client.bindChannel(channel, peer), "ChannelBind");
  const auto channelled =
      exchange("ChannelData:", CallLeg::onChannel(client, channel), datagramsPerForm);
  report("ChannelData:", channelled);

  requireSuccess(client.refresh(0), "Refresh");
  daemon.closeInput();
  if (const auto status = daemon.waitExit(10s); status != 0) {
    throw Failure(status ? fmt::format("the daemon ended with status {}", *status)
                         : "the daemon did not stop at the end of its input");
  }
  fmt::print("logs:             {} /tmp/zkturnd-dp.log /tmp/zk-egress.log\n", daemonLog);
  // UDP through a distant proxy loses some now and then; nothing between here and here does.
  const auto lost = first.losses() + sent.losses() + channelled.losses();
  if (lost > (onLoopback && echo ? 0 : datagramsPerForm / 10)) {
    throw Failure(fmt::format("{} datagrams were lost", lost));
  }
}

int runWith(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Starts the daemon, relays ten thousand datagrams in each of the two forms that a "
      "client may use, and reports how that went.",
      "zkturnd-demo");
  const auto hostPort = CLI::Validator(checkHostPort, "HOST:PORT");
  auto* proxy = app.add_option("--proxy", options.proxy,
                               "Relay through this SOCKS5 proxy instead of the demo's own")
                    ->check(hostPort);
  auto* user = app.add_option("--user", options.user, "Log in to that proxy")->needs(proxy);
  auto* pass = app.add_option("--pass", options.password, "... with this password")->needs(user);
  user->needs(pass);
  app.add_option("--peer", options.peer, "Send to this UDP echo service instead of the demo's own")
      ->check(CLI::Validator(checkEndpoint, "IP:PORT"));
  try {
    app.parse(argc, argv);
    run(options);
    return 0;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
}

}  // namespace
}  // namespace zk::demo

int main(int argc, char** argv) {
  try {
    return zk::demo::runWith(argc, argv);
  } catch (const std::exception& error) {
    std::fflush(stdout);
    fmt::print(stderr, "zkturnd-demo: {}\n", error.what());
    return 1;
  }
}
