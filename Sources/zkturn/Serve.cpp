// Three threads: the first one waits for a signal, the second one looks at the proxy, starts the
// daemon, and looks again once a minute; the third one waits for the daemon's end. Whichever has
// news ends the wait. The daemon's life hangs on a pipe that only this process holds, so that it
// ends with it, whatever ends that.

#include "zkturn/Serve.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>

#include <fmt/chrono.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Platform/Child.h"
#include "Platform/Clock.h"
#include "Platform/Mutex.h"
#include "Platform/Process.h"
#include "Platform/Random.h"
#include "Platform/Terminal.h"
#include "Platform/Thread.h"
#include "zkturn/Look.h"

namespace zk {
namespace {

namespace fs = std::filesystem;
using Clock = SteadyClock;
using Json = nlohmann::ordered_json;

constexpr std::chrono::seconds startPatience{10};
constexpr std::chrono::seconds endPatience{3};
constexpr std::chrono::minutes lookInterval{1};

bool isProgram(const fs::path& path) {
  std::error_code none;
  return fs::is_regular_file(path, none) && access(path.c_str(), X_OK) == 0;
}

// The first program of that name in PATH; empty when there is none.
fs::path inPath(const fs::path& name) {
  const char* const path = std::getenv("PATH");
  std::string_view rest = path != nullptr ? path : "";
  while (!rest.empty()) {
    const std::size_t colon = rest.find(':');
    fs::path candidate = fs::path(rest.substr(0, colon)) / name;
    if (isProgram(candidate)) {
      return candidate;
    }
    rest = colon == std::string_view::npos ? std::string_view{} : rest.substr(colon + 1);
  }
  return {};
}

// Packages put programs into bin and daemons into sbin, which is not in everybody's PATH.
fs::path findDaemon(const fs::path& ownName) {
  std::error_code none;
  const fs::path own =
      fs::canonical(ownName.has_parent_path() ? ownName : inPath(ownName), none).parent_path();
  for (const fs::path& candidate : {own / "zkturnd", own.parent_path() / "sbin" / "zkturnd"}) {
    if (isProgram(candidate)) {
      return candidate;
    }
  }
  fs::path found = inPath("zkturnd");
  if (found.empty()) {
    throw UsageError("there is no zkturnd beside this program nor in PATH: install it");
  }
  return found;
}

// A secret of 128 bits, in letters that need no quoting anywhere.
std::string secret() {
  std::array<std::uint8_t, 16> octets;
  if (randomBytes(octets) != 0) {
    throw std::runtime_error("the system has no random octets to give");
  }
  return fmt::format("{:02x}", fmt::join(octets, ""));
}

std::string timeOfDay() {
  return fmt::format("{:%H:%M}", fmt::localtime(std::time(nullptr)));
}

class Serving {
 public:
  Serving(const ProxyOptions& proxy, fs::path daemon)
      : proxy_(proxy), password_(readPassword(proxy)), daemonPath_(std::move(daemon)) {}

  // On a thread of its own, until the process ends.
  void work();
  // Whatever work() is doing. Returns the status to end with.
  int end();

 private:
  void begin();
  std::string startDaemon(const Findings& findings);
  void keepLooking();
  void fail(const std::string& sentence);

  const ProxyOptions& proxy_;
  const std::optional<std::string> password_;
  const fs::path daemonPath_;
  Mutex lock_;
  std::unique_ptr<Child> daemon_ GUARDED_BY(lock_);
  bool isEnding_ GUARDED_BY(lock_) = false;
  bool hasFailed_ GUARDED_BY(lock_) = false;
};

void Serving::work() {
  try {
    begin();
    keepLooking();
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

void Serving::begin() {
  Look look(proxy_, password_);
  try {
    look.findMapping();
    look.comparePorts();
  } catch (const Failure& failure) {
    look.conclude(failure);
    throw std::runtime_error(look.findings().verdict);
  }
  const Findings& found = look.findings();
  const std::string configuration = startDaemon(found);
  if (configuration.empty()) {
    return;  // it is ending already
  }
  writeOutput(configuration + "\n");
  fmt::print(stderr,
             "zkturn: peers see {}, {:.0f} ms away. Paste the line above into an "
             "RTCPeerConnection; Ctrl-C ends it.\n",
             found.seenByPeers->ip(), found.roundTripMilliseconds);
  if (found.isPortTheSame == false) {
    fmt::print(stderr, "zkturn: two people behind this proxy cannot call each other\n");
  }
}

// What a page takes as its configuration; empty when it is to end.
std::string Serving::startDaemon(const Findings& findings) {
  const std::string username = secret();
  const std::string credential = secret();
  const bool isMapped = findings.isPortTheSame == true && !findings.isPortTheRelays;
  const Json config{
      {"proxy",
       {{"host", proxy_.proxy.host},
        {"port", proxy_.proxy.port},
        {"user", proxy_.user.value_or("")},
        {"pass", password_.value_or("")}}},
      {"realm", secret()},
      {"username", username},
      {"credential", credential},
      {"options",
       {{"acceptFingerprint", true}, {"relayedPort", isMapped ? "mapped" : "assigned"}}}};
  std::map<std::string, std::string> environment;
  if (proxy_.viaDefault) {
    environment.emplace("ZK_EGRESS_VIA_DEFAULT", "1");
  }
  for (const Endpoint& server : proxy_.stunServers) {
    std::string& list = environment["ZK_STUN_IPS"];
    list = fmt::format("{}{}{}", list, list.empty() ? "" : ",", server.text());
  }
  const MutexLock guard(lock_);
  if (isEnding_) {
    return {};
  }
  keepFilesPrivate();
  daemon_ = std::make_unique<Child>(std::vector<std::string>{daemonPath_}, environment);
  daemon_->write(config.dump() + "\n");
  const Json answer = Json::parse(daemon_->readLine(Clock::now() + startPatience).value_or(""),
                                  nullptr, /*allow_exceptions=*/false);
  if (!answer.is_object() || answer.value("status", "") != "ready") {
    throw std::runtime_error(fmt::format(
        "{} does not start: {}", daemonPath_.string(),
        answer.is_object() ? answer.value("message", "no reason given") : "it says nothing"));
  }
  startThread("zkturn.daemon", [this, daemon = daemon_.get()] {
    daemon->awaitEnd();
    fail("zkturnd has ended by itself");
  }).detach();
  const Json server{
      {"urls", {fmt::format("turn:127.0.0.1:{}?transport=udp", answer.value("port", 0))}},
      {"username", username},
      {"credential", credential}};
  return Json{{"iceServers", {server}}, {"iceTransportPolicy", "relay"}}.dump();
}

void Serving::keepLooking() {
  if (!isTerminal(STDERR_FILENO)) {
    return;
  }
  while (true) {
    std::this_thread::sleep_for(lookInterval);
    Look look(proxy_, password_);
    try {
      look.findMapping();
      fmt::print(stderr, "\r\033[K{}  peers see {}, {:.0f} ms away", timeOfDay(),
                 look.findings().seenByPeers->ip(), look.findings().roundTripMilliseconds);
    } catch (const Failure& failure) {
      fmt::print(stderr, "\r\033[K{}  the proxy {}: {}", timeOfDay(), failure.without,
                 failure.came);
    }
  }
}

void Serving::fail(const std::string& sentence) {
  const MutexLock guard(lock_);
  if (!isEnding_ && !hasFailed_) {
    fmt::print(stderr, "zkturn: {}\n", sentence);
    hasFailed_ = true;
    requestStop();
  }
}

int Serving::end() {
  const MutexLock guard(lock_);
  isEnding_ = true;
  if (daemon_) {
    daemon_->end(Clock::now() + endPatience);
  }
  if (isTerminal(STDERR_FILENO)) {
    fmt::print(stderr, "\n");
  }
  return hasFailed_ ? 1 : 0;
}

}  // namespace

int serve(const ProxyOptions& proxy, const ServeOptions& options) {
  Serving serving(proxy, findDaemon(options.program));
  takeTerminationSignal();
  takeInterrupts();
  startThread("zkturn.serve", [&serving] { serving.work(); }).detach();
  awaitStop();
  endProcess(serving.end());  // a look may be under way, for which nobody waits
}

}  // namespace zk
