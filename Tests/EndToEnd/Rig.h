#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "Loopback/DaemonConfig.h"
#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/TURNClient.h"

namespace zk::test {

using namespace loopback;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

inline constexpr milliseconds patience{10'000};
inline constexpr milliseconds longPatience{40'000};  // two attempts at a bad proxy, and a margin
inline constexpr milliseconds aMoment{200};

// One compiler has macros for it, the other a question.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#elif defined(__has_feature)
inline constexpr bool sanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool sanitized = false;
#endif

inline constexpr const char* egressIP = "203.0.113.9";

inline Bytes bytes(std::string_view text) {
  const ByteView view = bytesOf(text);
  return {view.begin(), view.end()};
}

/// Whether `condition` holds before patience ends.
template <typename Condition>
bool becomesTrue(const Condition& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
  return true;
}

inline std::string contentOf(const fs::path& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

/// The program under test, by a descriptor: its path may be hidden by a mount.
inline std::string daemonBinary() {
  static const int file = open(ZK_DAEMON, O_RDONLY | O_CLOEXEC);
  return "/proc/self/fd/" + std::to_string(file);
}

/// A folder that goes when this goes.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = "/tmp/zk-test-XXXXXX";
    path_ = mkdtemp(name.data());
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const fs::path& path() const { return path_; }

  /// An executable shell script in it.
  std::string script(const std::string& text) const {
    const fs::path file = path_ / "start";
    std::ofstream(file) << "#!/bin/bash\n" << text << "\n";
    fs::permissions(file, fs::perms::owner_all);
    return file;
  }

 private:
  fs::path path_;
};

/// A /tmp of this process and its children alone, of so many KiB, for tests of the log files. It
/// must be made before there are threads, and needs root.
class PrivateTmp {
 public:
  explicit PrivateTmp(int kilobytes) {
    daemonBinary();
    const std::string size = "size=" + std::to_string(kilobytes) + "k";
    mounted_ = unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("tmpfs", "/tmp", "tmpfs", 0, size.c_str()) == 0;
  }
  ~PrivateTmp() {
    if (mounted_) {
      umount2("/tmp", MNT_DETACH);
    }
  }
  PrivateTmp(const PrivateTmp&) = delete;
  PrivateTmp& operator=(const PrivateTmp&) = delete;

  bool mounted() const { return mounted_; }

 private:
  bool mounted_ = false;
};

/// Whether `payload` comes back from `peer`, as ChannelData when `channel` is given.
inline bool echoes(TURNClient& client, const EchoPeer& peer, ByteView payload,
                   std::optional<std::uint16_t> channel = {}, milliseconds within = patience) {
  channel ? client.sendChannelData(*channel, payload)
          : client.sendIndication({peer.ip(), peer.port()}, payload);
  const auto data = client.receiveData(within);
  const bool isFromPeer = data && (channel ? data->channel == channel
                                           : data->peer && data->peer->ip == peer.ip() &&
                                                 data->peer->port == peer.port());
  return isFromPeer && data->payload == Bytes(payload.begin(), payload.end());
}

/// The whole world of one daemon, on the loopback.
struct Rig {
  explicit Rig(const SOCKS5Script& proxyScript = {}, STUNScript stunScript = {.mappedIP = egressIP})
      : stun(std::move(stunScript)),
        proxy(proxyScript),
        daemon(daemonBinary(), {{"ZK_STUN_IPS", stun.target()}}) {
    config.proxyPort = proxy.port();
    if (const auto& login = proxyScript.login) {
      config.proxyUser = login->user;
      config.proxyPassword = login->password;
    }
  }

  /// The daemon with its configuration given and its port known.
  static std::unique_ptr<Rig> ready(const SOCKS5Script& proxyScript = {},
                                    STUNScript stunScript = {.mappedIP = egressIP}) {
    auto rig = std::make_unique<Rig>(proxyScript, std::move(stunScript));
    rig->begin();
    return rig;
  }

  void begin() {
    daemon.write(config.line());
    const auto ready = daemon.waitReady(patience);
    EXPECT_TRUE(ready) << daemon.statusLine();
    port = ready.value_or(0);
  }

  std::unique_ptr<TURNClient> client() const {
    auto made = std::make_unique<TURNClient>(port, credentials());
    made->setTimeout(longPatience);
    return made;
  }
  std::unique_ptr<TURNClient> allocated() const {
    auto made = client();
    EXPECT_TRUE(made->allocate().success());
    return made;
  }
  TURNCredentials credentials() const {
    return {.username = config.username, .password = config.credential};
  }

  /// Ends the daemon's input; whether it ended in order.
  bool stops() {
    daemon.closeInput();
    return daemon.waitExit(patience) == 0;
  }

  STUNResponder stun;
  SOCKS5Server proxy;
  EchoPeer peer;
  DaemonConfig config;
  DaemonProcess daemon;
  std::uint16_t port = 0;
};

}  // namespace zk::test
