#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Loopback/ChildProcess.h"
#include "Loopback/Load.h"

namespace zk::bench {

/// A relaying process that carries the load, with the client ends that reach it.
class Contestant {
 public:
  virtual ~Contestant() = default;
  /// The process whose CPU time and memory are measured.
  virtual const loopback::ChildProcess& process() const = 0;
  const std::string& name() const { return name_; }
  bool isProxy() const { return isProxy_; }
  const std::vector<loopback::CallLeg>& legs() const { return legs_; }
  /// Where clients send to.
  std::uint16_t port() const { return port_; }

 protected:
  std::string name_;
  bool isProxy_ = false;
  std::uint16_t port_ = 0;
  std::vector<loopback::CallLeg> legs_;
};

/// The proxy of the daemons, for a process of its own: its relay is the far side itself. Prints its
/// port and serves until standard input ends.
void runProxy(std::uint16_t farPort);

enum class DaemonForm { channelData, indications };

/// The forwarder of Floor.h, in a process of its own.
std::unique_ptr<Contestant> makeFloor(std::uint16_t farPort);

/// The daemon `binary` with `clients` allocations through a proxy whose relay is the far side
/// itself.
std::unique_ptr<Contestant> makeDaemon(const std::string& binary, std::uint16_t farPort,
                                       DaemonForm form, unsigned clients = 1);

/// The SOCKS5 servers that are installed, each with one association.
std::vector<std::unique_ptr<Contestant>> makeProxies(std::uint16_t farPort);

}  // namespace zk::bench
