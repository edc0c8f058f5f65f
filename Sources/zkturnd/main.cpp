// The daemon: a configuration line comes in, one status line goes out, and TURN is served until
// standard input ends or SIGTERM arrives.

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/MainLoop.h"
#include "Platform/Process.h"
#include "Platform/Thread.h"
#include "ZelkorTURN/TURNServer.h"
#include "zkturnd/Configuration.h"
#include "zkturnd/DebugLog.h"
#include "zkturnd/RelayFactory.h"
#include "zkturnd/StatusOutput.h"

namespace {

constexpr const char* debugLogPath = "/tmp/zkturnd.log";

// A relay that is being opened through a proxy that hangs would hold up the stop for as long as the
// proxy likes. The end of the process releases everything just as well.
constexpr std::chrono::seconds longestStop{2};

std::optional<std::string> presentUnlessEmpty(const std::string& text) {
  return text.empty() ? std::nullopt : std::optional(text);
}

// Returns when standard input has ended, as it does when the parent closes it or dies. What comes
// in is thrown away.
void awaitEndOfInput() {
  char discarded[256] = {};
  ssize_t got = 0;
  do {
    got = read(STDIN_FILENO, discarded, sizeof discarded);
  } while (got > 0 || (got < 0 && errno == EINTR));
}

}  // namespace

int main() {
  using namespace zk;
  tidyInheritedDescriptors();
  raiseDescriptorLimit();

  DebugLog debugLog(debugLogPath);
  const Config config = readConfig();
  const auto factory = std::make_shared<SOCKS5RelayFactory>(config.proxy.host, config.proxy.port,
                                                            presentUnlessEmpty(config.proxy.user),
                                                            presentUnlessEmpty(config.proxy.pass));
  const auto server = std::make_shared<TURNServer>(
      Credentials{config.username, config.realm, config.credential}, config.realm, factory);
  server->debugLog = [&debugLog](std::string_view line) { debugLog.appendDebugLog(line); };
  debugLog.appendDebugLog(fmt::format("zkturnd start proxy={}:{} realm={} user={}",
                                      config.proxy.host, config.proxy.port, config.realm,
                                      config.username));
  try {
    server->start();
  } catch (const std::exception& error) {
    failWith(std::string("TURNServer.start() failed: ") + error.what());
  }
  writeStatus(readyLine(server->boundPort()));

  MainLoop mainLoop;
  const auto stopAndExit = [&] {
    startThread("zk.turnd.stop-limit", [] {
      std::this_thread::sleep_for(longestStop);
      _exit(0);
    }).detach();
    server->stop();
    debugLog.flush();
    // Not exit(): threads may still run, and no destructor may run under them.
    _exit(0);
  };
  mainLoop.onSignal(SIGTERM, stopAndExit);
  startThread("zk.turnd.stdin-watch", [&] {
    awaitEndOfInput();
    mainLoop.async(stopAndExit);
  }).detach();
  mainLoop.run();
}
