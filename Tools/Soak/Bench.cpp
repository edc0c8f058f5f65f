#include "Bench.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Loopback/DaemonConfig.h"

namespace zk::soak {
namespace {

constexpr rlim_t usualDescriptorLimit = 1024;
constexpr off_t longestLog = 64 << 20;

// By a descriptor, as its path may lie in the /tmp that is hidden.
std::string daemonBinary() {
  static const int file = open(ZK_DAEMON, O_RDONLY | O_CLOEXEC);
  return "/proc/self/fd/" + std::to_string(file);
}

}  // namespace

struct LogKeeper::State {
  std::atomic<bool> ending{false};
  std::thread thread;
};

LogKeeper::LogKeeper() : state_(std::make_unique<State>()) {
  daemonBinary();
  private_ = unshare(CLONE_NEWNS) == 0 &&
             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount("tmpfs", "/tmp", "tmpfs", 0, "size=256m") == 0;
}

void LogKeeper::begin() {
  if (!private_) {
    return;
  }
  state_->thread = std::thread([state = state_.get()] {
    while (!state->ending) {
      for (const char* const log : {"/tmp/zkturnd.log", "/tmp/zkturnd-dp.log"}) {
        struct stat status {};
        if (stat(log, &status) == 0 && status.st_blocks * 512 > longestLog) {
          [[maybe_unused]] const int result = truncate(log, 0);
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
}

LogKeeper::~LogKeeper() {
  state_->ending = true;
  if (state_->thread.joinable()) {
    state_->thread.join();
  }
}

Bench::Bench() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max <= 2 * usualDescriptorLimit) {
    throw std::runtime_error("the hard limit on descriptors is too low");
  }
  const rlimit usual{usualDescriptorLimit, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &usual);
  daemon_ = std::make_unique<loopback::DaemonProcess>(
      daemonBinary(), std::map<std::string, std::string>{{"ZK_STUN_IPS", stun_.target()}});
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  daemon_->write(loopback::DaemonConfig{.proxyPort = proxy_.port()}.line());
  const auto port = daemon_->waitReady(std::chrono::seconds(10));
  if (!port) {
    throw std::runtime_error("the daemon does not start: " + daemon_->statusLine());
  }
  port_ = *port;
}

Holdings Bench::holdings() const {
  return {daemon_->residentKilobytes(), daemon_->descriptorCount(), daemon_->threadCount()};
}

Holdings Bench::settledHoldings() const {
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  return holdings();
}

}  // namespace zk::soak
