// The daemon: a configuration line comes in, one status line goes out, and TURN is served until
// standard input ends or SIGTERM arrives.

#include <chrono>
#include <exception>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "Platform/Process.h"
#include "ZelkorTURN/TURNServer.h"
#include "zkturnd/Configuration.h"
#include "zkturnd/Logs.h"
#include "zkturnd/ParentWatch.h"
#include "zkturnd/RelayFactory.h"
#include "zkturnd/StatusOutput.h"

namespace {

using namespace zk;

// How long a stop waits for the disk to take the last lines.
constexpr std::chrono::milliseconds logPatience{500};

SOCKS5RelaySettings relaySettings(const Config& config, Logs& logs) {
  SOCKS5RelaySettings settings;
  settings.proxy = config.proxy;
  settings.reportsMappedPort = config.options.reportsMappedPort;
  settings.dataPlaneLog = [&logs](std::string_view line) { logs.zkDPLog(line); };
  settings.egressLog = [&logs](std::string_view line) { logs.plog(line); };
  return settings;
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
