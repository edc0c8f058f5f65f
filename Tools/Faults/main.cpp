// Takes the daemon through a fixed scenario once for each line of standard input, each time with
// something else going wrong, and says what did not hold afterwards. scripts/faults writes the
// lines:
//
//   NUMBER start CALL ERROR N     the N-th CALL of each thread fails, from the start of the program
//   NUMBER attach CALL ERROR N    the same from where the daemon waits for its configuration
//   NUMBER start | attach         nothing fails; for what strace records
//   NUMBER limit SHELL            it is started behind such a line of shell, by an ordinary user
//   NUMBER spare MEBIBYTES        once it is ready, its address space can grow by so much
//
// What strace records of a run is in FOLDER/NUMBER.

#include <cstdio>
#include <iostream>
#include <set>
#include <sstream>
#include <thread>

#include <fmt/format.h>

#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/Scratch.h"
#include "Loopback/TURNClient.h"
#include "NetworkLab/NetworkLab.h"

namespace zk::faults {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using lab::NetworkLab;

constexpr const char* home = R"(
link home lan0 10.1.0.2 router wire 10.1.0.1
route default via 10.1.0.1 mtu 1280
)";
constexpr const char* interfaceUp =
    "ip -n home link add new0 type veth peer name new1; ip -n home link set new1 up; "
    "end home new0 10.77.0.1\n";
constexpr const char* interfaceGone = "ip -n home link del new0\n";

const std::set<std::string> allowedTraffic{"TCP to 10.2.0.2 by wire", "UDP to 10.2.0.2 by wire"};
constexpr std::uint16_t channel = 0x4000;
constexpr std::size_t overMTU = 1400;
constexpr auto openPatience = 20s;  // both attempts at a proxy that does not answer

struct Job {
  explicit Job(const std::string& line) {
    std::istringstream(line) >> number >> mode >> call >> error >> when;
    shell = mode == "limit" ? line.substr(line.find("limit") + 5) : "";
    isTraced = mode == "start" || mode == "attach";
  }
  std::string number, mode, call, error, when, shell;
  bool isTraced;
};

/// Whether `condition` holds within `limit`.
template <typename Condition>
bool within(std::chrono::milliseconds limit, Condition condition) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

class Run {
 public:
  Run(NetworkLab& network, const Job& job, const std::string& log)
      : network_(network), job_(job), log_(log) {
    NetworkLab::in("internet", [&] {
      stun_.emplace(STUNScript{.mappedIP = NetworkLab::proxyPublic}, NetworkLab::internet, 3478);
      peer_.emplace(NetworkLab::internet, 7000);
    });
  }

  /// What did not hold, or how far the daemon came.
  std::string result() {
    network_.takeTraffic();
    NetworkLab::in("home", [this] { start(); });
    if (!port_) {
      const bool saysWhy = daemon_->statusLine().starts_with(R"({"status":"error")");
      if (!saysWhy && (job_.error == "EIO" || job_.error == "ENOSPC") && isOutputLost()) {
        daemon_->terminate();
        demand(daemon_->waitExit(3s) == 0, "it does not end");
        return broken_.empty() ? "ok, nobody can hear it" : broken_;
      }
      demand(saysWhy && daemon_->waitExit(3s) == 1, "no ready line, no error line");
      return broken_.empty() ? "ok, did not start" : broken_;
    }
    const std::size_t descriptors = daemon_->descriptorCount();
    const auto first = open();
    if (!broken_.empty()) {  // nor will it answer anything else
      return broken_;
    }
    const auto second = open();
    for (const auto& client : {first.get(), second.get()}) {
      demand(!client || carries(*client), "a new relay does not carry");
    }
    if (first) {
      for (int i = 0; i < 20; ++i) {
        first->sendChannelData(channel, Bytes(overMTU));
      }
      while (first->receiveData(100ms)) {
      }
    }
    demand(!second || leaves(*second), "no answer to a Refresh of 0");
    NetworkLab::change(interfaceUp);
    const auto third = open();
    demand(!third || carries(*third), "a relay does not carry after a change of interfaces");
    demand(!first || carries(*first) || first->refresh(600).errorCode() != 0,
           "the old call is dead and its Refresh succeeds");
    for (const auto& client : {first.get(), third.get()}) {
      demand(!client || leaves(*client), "no answer to a Refresh of 0");
    }
    demand(within(3s, [&] { return daemon_->descriptorCount() <= descriptors; }) ||
               job_.call == "close",
           "descriptors are left open");
    demand(!daemon_->waitExit(0s), "it has ended");
    NetworkLab::change(interfaceGone);
    daemon_->terminate();
    const auto status = daemon_->waitExit(3s);
    demand(status == 0, status ? fmt::format("it ends with {}", *status) : "it does not end");
    for (const auto& [kind, count] : network_.takeTraffic()) {
      demand(allowedTraffic.contains(kind), kind);
    }
    if (broken_.empty() && job_.isTraced && !job_.call.empty() && injected() == 0) {
      return "not reached";
    }
    return broken_.empty() ? "ok" : broken_;
  }

 private:
  void demand(bool holds, const std::string& otherwise) {
    broken_ += holds ? "" : "FAILED: " + otherwise + "; ";
  }

  void start() {
    const std::map<std::string, std::string> environment{{"ZK_STUN_IPS", stun_->target()}};
    std::vector<std::string> strace{findProgram("strace"), "-f", "-qq", "-o", log_};
    if (!job_.call.empty()) {
      strace.push_back(
          fmt::format("--inject={}:error={}:when={}", job_.call, job_.error, job_.when));
    }
    std::vector<std::string> command{"/run/zkturnd"};
    if (job_.mode == "start") {
      command = strace;
      command.insert(command.end(), {"-D", "/run/zkturnd"});
    } else if (job_.mode == "limit") {
      // Not nobody, as whom the proxy runs: the limit of processes is one for each user.
      command = {"/bin/bash", "-c",
                 job_.shell +
                     "; exec setpriv --reuid=54321 --regid=54321 --clear-groups "
                     "--inh-caps=-all --bounding-set=-all --no-new-privs /run/zkturnd"};
    }
    daemon_ = std::make_unique<DaemonProcess>(command, environment);
    if (job_.mode == "attach") {
      std::this_thread::sleep_for(20ms);  // until it waits for its configuration
      strace.insert(strace.end(), {"-p", std::to_string(daemon_->pid())});
      tracer_ = std::make_unique<ChildProcess>(strace);
      const std::string status = fmt::format("/proc/{}/status", daemon_->pid());
      within(5s, [&] { return contentOf(status).find("TracerPid:\t0") == std::string::npos; });
      std::this_thread::sleep_for(20ms);  // all of its threads
    }
    daemon_->write(
        DaemonConfig{.proxyHost = NetworkLab::proxyInner, .proxyPort = NetworkLab::proxyPort}
            .line());
    port_ = daemon_->waitReady(10s);
    if (job_.mode == "spare") {
      runScript(
          fmt::format("prlimit --pid {0} --as=$((`awk '/VmSize/ {{ print $2 }}' "
                      "/proc/{0}/status` * 1024 + {1} * 1048576))",
                      daemon_->pid(), job_.call));
    }
  }

  bool isOutputLost() const {
    const std::string log = contentOf(log_);
    const auto at = log.find("write(1, ");
    const std::string line = at == log.npos ? "" : log.substr(at, log.find('\n', at) - at);
    return line.ends_with("(INJECTED)") || line.ends_with("<unfinished ...>");
  }

  std::size_t injected() const {
    const std::string log = contentOf(log_);
    std::size_t count = 0;
    for (auto at = log.find("(INJECTED)"); at != log.npos; at = log.find("(INJECTED)", at + 1)) {
      ++count;
    }
    return count;
  }

  /// A client with a relay and a channel; none when the daemon answers with an error, for which
  /// something must have failed meanwhile.
  std::unique_ptr<TURNClient> open() {
    const std::size_t before = injected();
    std::unique_ptr<TURNClient> client;
    NetworkLab::in("home", [&] { client = std::make_unique<TURNClient>(*port_); });
    client->setTimeout(openPatience);
    client->setRetransmission(500ms, 39);
    const TURNAnswer answer = client->allocate();
    if (answer.success() && client->bindChannel(channel, peer_->endpoint()).success()) {
      return client;
    }
    demand(answer.message.has_value(), "no answer to an Allocate");
    demand(answer.success() || !job_.isTraced || injected() > before,
           fmt::format("an Allocate gets {} and nothing has failed", answer.errorCode()));
    return nullptr;
  }

  /// Both ways, a datagram that is lost not counted.
  bool carries(TURNClient& client) const {
    for (int tries = 0; tries < 4; ++tries) {
      client.sendChannelData(channel, bytesOf("hello"));
      if (client.receiveData(500ms)) {
        return true;
      }
    }
    return false;
  }

  static bool leaves(TURNClient& client) { return client.refresh(0).message.has_value(); }

  NetworkLab& network_;
  const Job& job_;
  const std::string log_;
  std::optional<STUNResponder> stun_;
  std::optional<EchoPeer> peer_;
  std::unique_ptr<DaemonProcess> daemon_;
  std::unique_ptr<ChildProcess> tracer_;
  std::optional<std::uint16_t> port_;
  std::string broken_;
};

int runAll(const std::string& folder) {
  NetworkLab network(home);
  for (std::string line; std::getline(std::cin, line);) {
    const Job job(line);
    std::string result;
    try {
      result = Run(network, job, folder + "/" + job.number).result();
    } catch (const std::exception& error) {
      result = fmt::format("FAILED: {}", error.what());
    }
    fmt::print("{} {}\n", job.number, result);
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace
}  // namespace zk::faults

int main(int argc, char** argv) {
  if (argc != 2) {
    fmt::print(stderr, "usage: zkturnd-faults FOLDER\n");
    return 2;
  }
  const std::string hindrance =
      zk::lab::enterPrivateMachine(zk::loopback::programBeside("zkturnd"));
  if (!hindrance.empty()) {
    fmt::print("skipped: needs root, and what the network lab is made of: {}\n", hindrance);
    return 77;
  }
  return zk::faults::runAll(argv[1]);
}
