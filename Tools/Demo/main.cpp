// Shows the daemon at work: starts it as a parent process does, gets a relay through a SOCKS5 proxy
// and sends datagrams to an echoing peer and back.

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Demo/Exchange.h"
#include "Demo/Options.h"
#include "Demo/ProgressBar.h"
#include "Demo/RelayLog.h"
#include "Loopback/DaemonConfig.h"
#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/TURNClient.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "ZelkorTURN/TURNAuth.h"

namespace zk::demo {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t datagramsPerForm = 10000;
constexpr std::uint16_t channel = 0x4000;
constexpr auto startPatience = 5s;
constexpr auto stopPatience = 10s;
// Two attempts, each with name resolution, connecting, four reads and the search for the egress
// address, all with their own limits.
constexpr auto openPatience = 120s;

/// The demonstration cannot go on; what() says why in one sentence.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

bool isLoopback(const sockaddr_in& address) {
  return ntohl(address.sin_addr.s_addr) >> 24 == 127;
}

/// The address of this machine that the proxy can reach it at.
std::string addressTowards(const sockaddr_in& proxy) {
  const int socket = openUDPSocket();
  sockaddr_in local{};
  if (connect(socket, reinterpret_cast<const sockaddr*>(&proxy), sizeof proxy) == 0) {
    local = localAddress(socket);
  }
  closeSocket(socket);
  return addressText(local);
}

/// All that stands around the daemon: the kit's far side, less what the user brings.
struct Surroundings {
  bool onLoopback = true;
  std::unique_ptr<loopback::SOCKS5Server> proxy;
  std::unique_ptr<loopback::EchoPeer> echo;
  loopback::STUNResponder stun;
  loopback::DaemonConfig config;
  std::map<std::string, std::string> environment;
  std::string proxyText;
  TURNAttributes::Address peer;
};

void prepare(Surroundings& around, const Options& options) {
  around.config.credential = TURNAuth::makeNonce();
  around.config.realm = "zkturnd.demo";
  std::string echoIP = "127.0.0.1";
  if (options.proxy) {
    const sockaddr_in address = resolveProxy(*options.proxy);
    around.onLoopback = isLoopback(address);
    echoIP = addressTowards(address);
    around.config.proxyHost = options.proxy->host;
    around.config.proxyPort = options.proxy->port;
    around.config.proxyUser = options.proxy->user;
    around.config.proxyPassword = options.proxy->password;
  } else {
    around.proxy = std::make_unique<loopback::SOCKS5Server>();
    around.config.proxyPort = around.proxy->port();
  }
  around.proxyText = fmt::format("{}:{}", around.config.proxyHost, around.config.proxyPort);
  if (around.onLoopback) {
    // From there no public STUN server would see an address that is of use.
    around.environment["ZK_STUN_IPS"] = around.stun.target();
  }
  if (options.peer) {
    around.peer = *options.peer;
  } else {
    around.echo = std::make_unique<loopback::EchoPeer>(echoIP);
    around.peer = {echoIP, around.echo->port()};
  }
}

std::string daemonBinary() {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename("zkturnd").string();
}

void requireSuccess(const loopback::TURNAnswer& answer, const char* what) {
  if (!answer.message) {
    throw Failure(fmt::format("the daemon did not answer {}", what));
  }
  if (!answer.success()) {
    throw Failure(fmt::format("the daemon answered {} with error {}", what, answer.errorCode()));
  }
}

TURNAttributes::Address openRelay(loopback::TURNClient& client, const Surroundings& around,
                                  const RelayLog& log) {
  showPassingLine("opening a relay through " + around.proxyText);
  client.setTimeout(openPatience);
  const auto answer = client.allocate();
  client.setTimeout(startPatience);
  showPassingLine("");
  if (answer.errorCode() == TURNAttributes::serverError.code) {
    const auto reason = log.failureReason(client.localPort());
    throw Failure(fmt::format("no relay through {}: {}", around.proxyText,
                              reason.value_or(fmt::format("see {}", daemonLog))));
  }
  requireSuccess(answer, "Allocate");
  const auto relayed = answer.relayedAddress();
  if (!relayed) {
    throw Failure("the daemon's answer to Allocate holds no relayed address");
  }
  return *relayed;
}

void report(const char* label, const ExchangeResult& result) {
  fmt::print("{:<17} {} sent, {} lost", fmt::format("{}:", label), result.sent,
             result.lost == 0 ? "none" : std::to_string(result.lost));
  if (result.strange > 0) {
    fmt::print(", {} unexpected", result.strange);
  }
  if (!result.roundTrips.empty()) {
    fmt::print("; round trip p50 {} us, p90 {} us, p99 {} us, max {} us",
               result.percentile(0.50).count(), result.percentile(0.90).count(),
               result.percentile(0.99).count(), result.percentile(1).count());
  }
  fmt::print(" ({:.2f} s)\n", static_cast<double>(result.duration.count()) / 1e6);
}

void run(const Options& options) {
  Surroundings around;
  prepare(around, options);
  const RelayLog log;
  loopback::DaemonProcess daemon(daemonBinary(), around.environment);
  daemon.write(around.config.line());
  const auto port = daemon.waitReady(startPatience);
  if (!port) {
    throw Failure(daemon.statusLine().empty() ? "the daemon did not get ready"
                                              : "the daemon did not start: " + daemon.statusLine());
  }
  loopback::TURNClient client(*port, {around.config.username, around.config.credential});
  const auto relayed = openRelay(client, around, log);
  requireSuccess(client.createPermission(around.peer), "CreatePermission");
  requireSuccess(client.bindChannel(channel, around.peer), "ChannelBind");
  // Some datagrams ahead of all words, so that a proxy that opens a relay and forwards nothing is
  // told of in one sentence like any other that is of no use.
  const auto first = exchange(client, Form::sendIndication, around.peer, channel, windowSize);
  if (first.roundTrips.empty()) {
    throw Failure(
        fmt::format("the relay opened, but no datagram came back from {}:{} through {}{}",
                    around.peer.ip, around.peer.port, around.proxyText,
                    options.peer ? "" : "; name an echo service that it can reach with --peer"));
  }
  fmt::print("daemon:           process {}, TURN on 127.0.0.1:{}\n", daemon.pid(), *port);
  fmt::print("proxy:            {}{}\n", around.proxyText,
             options.proxy ? "" : " (the demo's own)");
  fmt::print("peer:             {}:{}{}\n", around.peer.ip, around.peer.port,
             options.peer ? "" : " (the demo's own echo)");
  fmt::print("relayed address:  {}:{}\n", relayed.ip, relayed.port);
  fmt::print("sending:          {} datagrams of {} octets each way, {} under way at a time\n",
             2 * datagramsPerForm, payloadSize, windowSize);

  std::size_t lost = first.lost;
  for (const auto& [form, label] : {std::pair(Form::sendIndication, "Send indications"),
                                    std::pair(Form::channelData, "ChannelData")}) {
    const auto result = exchange(client, form, around.peer, channel, datagramsPerForm);
    report(label, result);
    lost += result.lost;
  }

  requireSuccess(client.refresh(0), "Refresh");
  daemon.closeInput();
  if (const auto status = daemon.waitExit(stopPatience); status != 0) {
    throw Failure(status ? fmt::format("the daemon ended with status {}", *status)
                         : "the daemon did not stop at the end of its input");
  }
  fmt::print("logs:             {} {} {}\n", daemonLog, dataPlaneLog, egressLog);
  // UDP through a distant proxy loses some now and then; nothing between here and here does.
  const bool mayLose = !around.onLoopback || options.peer;
  if (lost > (mayLose ? tolerableLoss(datagramsPerForm) : 0)) {
    throw Failure(fmt::format("{} datagrams were lost", lost));
  }
}

}  // namespace
}  // namespace zk::demo

int main(int argc, char** argv) {
  try {
    const auto options = zk::demo::parseOptions(argc, argv);
    if (options.help) {
      fmt::print("{}", zk::demo::usage);
      return 0;
    }
    zk::demo::run(options);
    return 0;
  } catch (const zk::demo::UsageError& error) {
    fmt::print(stderr, "zkturnd-demo: {}\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    fmt::print(stderr, "zkturnd-demo: {}\n", error.what());
    return 1;
  }
}
