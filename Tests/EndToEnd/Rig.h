#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Loopback/DaemonProcess.h"
#include "Loopback/EchoPeer.h"
#include "Loopback/PrivateTmp.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Loopback/Scratch.h"
#include "Loopback/TURNClient.h"
#include "Support.h"

namespace zk::test {

using namespace loopback;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

inline constexpr milliseconds patience{10'000};
inline constexpr milliseconds longPatience{40'000};  // two attempts at a bad proxy, and a margin
inline constexpr milliseconds aMoment{200};

inline constexpr const char* egressIP = "203.0.113.9";

inline Bytes bytes(std::string_view text) {
  const ByteView view = bytesOf(text);
  return {view.begin(), view.end()};
}

/// The program under test, by a descriptor: its path may be hidden by a mount.
inline std::string daemonBinary() {
  static const std::string path = pathByDescriptor(ZK_DAEMON);
  return path;
}

/// How to start it: with `shell`, what a shell does before it becomes the daemon ("$0").
inline std::vector<std::string> daemonCommand(const std::string& shell = {}) {
  if (shell.empty()) {
    return {daemonBinary()};
  }
  return {"/bin/bash", "-c", shell + "\nexec \"$0\"", daemonBinary()};
}

/// A test whose daemons have log files, which lie in /tmp, of their own.
class PrivateTmpTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!tmp_.mounted()) {
      GTEST_SKIP() << "needs root: sudo scripts/test";
    }
  }

 private:
  const std::string binary_ = daemonBinary();  // before a mount hides it
  const PrivateTmp tmp_{32 * 1024};
};

/// What OPENSSL_CONF names for a crypto library without any digest.
inline constexpr const char* noDigests =
    "openssl_conf=i\n[i]\nproviders=p\n[p]\nbase=b\n[b]\nactivate=1\n";

/// How often `text` holds `piece`.
inline std::size_t count(std::string_view text, std::string_view piece) {
  std::size_t found = 0;
  for (auto at = text.find(piece); at != text.npos; at = text.find(piece, at + 1)) {
    ++found;
  }
  return found;
}

/// Whether `payload` comes back from `peer`, as ChannelData when `channel` is given.
inline bool echoes(TURNClient& client, const EchoPeer& peer, ByteView payload,
                   std::optional<std::uint16_t> channel = {}, milliseconds within = patience) {
  channel ? client.sendChannelData(*channel, payload)
          : client.sendIndication(peer.endpoint(), payload);
  const auto data = client.receiveData(within);
  const bool isFromPeer =
      data && (channel ? data->channel == channel : data->peer == peer.endpoint());
  return isFromPeer && data->payload == Bytes(payload.begin(), payload.end());
}

/// The whole world of one daemon, on the loopback.
struct Rig {
  explicit Rig(const SOCKS5Script& proxyScript = {}, STUNScript stunScript = {.mappedIP = egressIP},
               const std::string& shell = {})
      : stun(std::move(stunScript)),
        proxy(proxyScript),
        daemon(daemonCommand(shell), {{"ZK_STUN_IPS", stun.target()}}) {
    config.proxyPort = proxy.port();
    if (const auto& login = proxyScript.login) {
      config.proxyUser = login->user;
      config.proxyPassword = login->password;
    }
  }

  /// The daemon as daemonCommand() has it, and nothing given to it yet.
  static std::unique_ptr<Rig> startedBy(const std::string& shell) {
    return std::make_unique<Rig>(SOCKS5Script{}, STUNScript{.mappedIP = egressIP}, shell);
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
