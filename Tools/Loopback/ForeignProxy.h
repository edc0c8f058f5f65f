#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Loopback/ChildProcess.h"
#include "Loopback/SOCKS5Script.h"
#include "Loopback/Scratch.h"

namespace zk::loopback {

/// A SOCKS5 server of the distribution's that other people wrote, started on the loopback, or at
/// another address of this machine, with a configuration of ours, where that can be done.
class ForeignProxy {
 public:
  static constexpr const char* names[] = {"danted", "v2ray", "ss-local"};

  /// Why that one cannot run here; empty when it can.
  static std::string hindrance(const std::string& name);

  /// Returns when it accepts connections. danted asks for logins of the machine's users only,
  /// ss-local for none. Throws std::runtime_error with what the server said.
  explicit ForeignProxy(const std::string& name, const std::optional<SOCKS5Login>& login = {},
                        const std::string& ip = "127.0.0.1");

  std::uint16_t port() const { return port_; }
  /// What the servers have said so far.
  std::string output() const { return contentOf(folder_.path() / "output"); }
  /// The process that relays.
  const ChildProcess& process() const { return *servers_.back(); }

 private:
  void start(std::vector<std::string> command);
  void startDante(bool withLogin);
  void startV2Ray(const std::optional<SOCKS5Login>& login);
  void startShadowsocks();

  const std::string ip_;
  const std::uint16_t port_;
  TemporaryFolder folder_;
  std::vector<std::unique_ptr<ChildProcess>> servers_;
};

}  // namespace zk::loopback
