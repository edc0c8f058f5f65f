#pragma once

#include <cstdlib>
#include <string>

#include "System.h"

namespace zk::test {

/// Puts this thread, and those it starts, into a network of their own for as long as it lives. It
/// has the loopback, and everything else goes to an Ethernet on which nobody answers: datagrams
/// wait for an answer to ARP, and take room in their socket's buffer meanwhile.
class PrivateNetwork {
 public:
  PrivateNetwork() : home_(enterNewNetwork()) {
    if (home_) {
      exists_ =
          run("ip link set lo up; ip link add dead type veth peer name end;"
              "ip link set dead up && ip link set end up && ip addr add 10.9.0.1/24 dev dead &&"
              "echo 100000000 > /proc/sys/net/ipv4/neigh/dead/unres_qlen_bytes");
    }
  }
  ~PrivateNetwork() { returnToNetwork(home_); }
  PrivateNetwork(const PrivateNetwork&) = delete;
  PrivateNetwork& operator=(const PrivateNetwork&) = delete;

  /// It takes privileges that not everybody has.
  explicit operator bool() const { return exists_; }

  static constexpr const char* host = "10.9.0.2";
  /// Whether the host is here, on the loopback, or nowhere.
  static bool setReachable(bool reachable) {
    const std::string address = std::string(host) + "/32 dev lo";
    return reachable ? run("ip link set dead down; ip addr add " + address)  // frees what waits
                     : run("ip link set dead up && ip addr del " + address);
  }

 private:
  static bool run(const std::string& script) {
    return std::system(("{ " + script + "; } >/dev/null 2>&1").c_str()) == 0;
  }

  const Descriptor home_;
  bool exists_ = false;
};

}  // namespace zk::test
