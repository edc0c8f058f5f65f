#pragma once

#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"
#include "Seal/SealLab.h"

namespace zk::lab {

using loopback::SOCKS5Login;
using loopback::SOCKS5Script;
using loopback::SOCKS5Server;
using loopback::STUNResponder;
using loopback::STUNScript;

/// What may leave home.
inline const Traffic toProxy{"TCP to 10.2.0.2 by wire", "UDP to 10.2.0.2 by wire"};

/// Programs at home that are run with a proxy, and the internet behind that.
class RunTest : public SealTest {
 protected:
  void SetUp() override {
    SealTest::SetUp();
    if (lab == nullptr) {
      return;
    }
    NetworkLab::in("internet", [&] {
      stun = std::make_unique<STUNResponder>(STUNScript{.mappedIP = NetworkLab::proxyPublic},
                                             NetworkLab::internet, 3478);
      internet = std::make_unique<ChildProcess>(std::vector<std::string>{
          loopback::findProgram("python3"), "/tmp/far_side.py", NetworkLab::internet});
      ASSERT_EQ(internet->readLine(patience), "listens");
    });
    environment["ZK_STUN_IPS"] = stun->target();
    NetworkLab::change("until ip netns exec proxy ss -Htln | grep -q :1080; do sleep 0.05; done");
  }

  std::vector<std::string> throughProxy(const std::vector<std::string>& command,
                                        const std::vector<std::string>& options = {}) {
    std::vector<std::string> all{zkturn, "run", "--dns", NetworkLab::internet, proxy};
    all.insert(all.end(), options.begin(), options.end());
    all.push_back("--");
    all.insert(all.end(), command.begin(), command.end());
    return all;
  }
  static std::vector<std::string> client(const std::string& step) {
    return {"python3", "/tmp/sealed_client.py", step};
  }

  // Another proxy than the lab's own, on the same host, at its public address.
  void scriptProxy(const SOCKS5Script& script) {
    NetworkLab::change("ip -n router route add 203.0.113.2 via 10.2.0.2");
    NetworkLab::in("proxy", [&] {
      scripted = std::make_unique<SOCKS5Server>(script, NetworkLab::proxyPublic, 1081);
    });
    proxy = "203.0.113.2:1081";
  }

  const std::string zkturn = "/tmp/zkturn";
  std::string proxy = "10.2.0.2:1080";
  std::unique_ptr<SOCKS5Server> scripted;
  std::unique_ptr<STUNResponder> stun;
  std::unique_ptr<ChildProcess> internet;
};

}  // namespace zk::lab
