#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Load.h"

namespace zk::bench {

/// A relaying process that carries the load, with the client ends that reach it.
class Contestant {
 public:
  virtual ~Contestant() = default;
  const std::string& name() const { return name_; }
  /// The process whose CPU time and memory are measured.
  pid_t pid() const { return pid_; }
  const std::vector<Endpoint>& endpoints() const { return endpoints_; }
  bool isProxy() const { return isProxy_; }

 protected:
  std::string name_;
  pid_t pid_ = -1;
  bool isProxy_ = false;
  std::vector<Endpoint> endpoints_;
};

enum class DaemonForm { channelData, indications };

/// The forwarder of Floor.h, in a process of its own.
std::unique_ptr<Contestant> makeFloor(std::uint16_t farPort);

/// The daemon with `clients` allocations through a proxy whose relay is the far side itself. An
/// empty `binary` is the daemon of this build; another one bears its path in its name.
std::unique_ptr<Contestant> makeDaemon(std::uint16_t farPort, DaemonForm form, unsigned clients = 1,
                                       const std::string& binary = {});

/// The SOCKS5 servers that are installed, each with one association.
std::vector<std::unique_ptr<Contestant>> makeProxies(std::uint16_t farPort);

}  // namespace zk::bench
