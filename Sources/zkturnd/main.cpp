// The daemon: a configuration line comes in, one status line goes out, and TURN is served until
// standard input ends or SIGTERM arrives.

#include <array>
#include <chrono>
#include <exception>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "Platform/Process.h"
#include "Platform/Thread.h"
#include "ZelkorTURN/SOCKS5Relay.h"
#include "ZelkorTURN/TURNServer.h"
#include "zkturnd/Configuration.h"
#include "zkturnd/Logs.h"
#include "zkturnd/StatusOutput.h"

namespace {

using namespace zk;

// How long a stop waits for the disk to take the last lines.
constexpr std::chrono::milliseconds logPatience{500};

// Makes relays through one SOCKS5 proxy, all with the same settings. A bad host or port shows when
// a relay is opened.
class SOCKS5RelayFactory final : public TURNRelayFactory {
 public:
  explicit SOCKS5RelayFactory(SOCKS5RelaySettings settings)
      : settings_(std::make_shared<const SOCKS5RelaySettings>(std::move(settings))) {}

  std::shared_ptr<TURNRelay> makeRelay(const Endpoint& /*forClient*/) override {
    return std::make_shared<SOCKS5Relay>(settings_);
  }

 private:
  const std::shared_ptr<const SOCKS5RelaySettings> settings_;
};

SOCKS5RelaySettings relaySettings(const Config& config, Logs& logs) {
  SOCKS5RelaySettings settings;
  settings.proxy = config.proxy;
  settings.reportsMappedPort = config.options.reportsMappedPort;
  settings.dataPlaneLog = [&logs](std::string_view line) { logs.zkDPLog(line); };
  settings.egressLog = [&logs](std::string_view line) { logs.plog(line); };
  return settings;
}

// A parent that goes away, for whatever reason, takes the daemon with it. Whatever else arrives on
// standard input is discarded.
void watchParent() {
  startThread("zk.turnd.stdin-watch", [] {
    std::array<char, 256> discarded;
    while (readInput(discarded) > 0) {
    }
    requestStop();
  }).detach();
}

[[noreturn]] void failToStart(const std::exception& error) {
  failWith(std::string("TURNServer.start() failed: ") + error.what());
}

[[noreturn]] void serve() {
  Logs logs;
  const Config config = readConfig();
  TURNServer server({config.username, config.realm, config.credential}, config.realm,
                    std::make_shared<SOCKS5RelayFactory>(relaySettings(config, logs)),
                    config.options.acceptFingerprint);
  server.debugLog = [&logs](std::string_view line) { logs.appendDebugLog(line); };
  logLine(server.debugLog, FMT_COMPILE("zkturnd start proxy={}:{} realm={} user={}"),
          config.proxy.host, config.proxy.port, config.realm, config.username);
  try {
    takeTerminationSignal();
    server.start();
    watchParent();
  } catch (const std::exception& error) {
    failToStart(error);  // here: outside, destructors would wait for the disk first
  }
  writeOutput(readyLine(server.boundPort()));
  awaitStop();
  server.stop();
  logs.flush(logPatience);
  endProcess(0);  // a thread may still be waiting for standard input or the disk
}

}  // namespace

int main() {
  prepareProcess();
  try {
    serve();
  } catch (const std::exception& error) {
    failToStart(error);
  }
}
