#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Loopback/ChildProcess.h"
#include "Loopback/Scratch.h"
#include "NetworkLab/NetworkLab.h"
#include "Support.h"

namespace zk::lab {

using namespace test;
using loopback::ChildProcess;
using loopback::contentOf;
using std::chrono::milliseconds;
using Traffic = std::set<std::string>;

inline constexpr milliseconds patience{20'000};
inline std::string whyNoLab;  // empty when the lab can be built
inline Descriptor libwebrtc;  // node's modules with it, where they are installed

// Home has a VPN, a wire, and IPv6 on it; a name server of its own, as most have.
inline constexpr const char* home = R"(
link home lan0 10.1.0.2 router wire 10.1.0.1
route default via 10.1.0.1 metric 100
ipv6 home lan0 fd00:1::2
ipv6 router wire fd00:1::1
printf 'nameserver 10.1.0.1\noptions timeout:1 attempts:1\n' >/etc/resolv.conf
)";

// As the user "nobody", who has lost all that a process can lose without a seal.
inline std::vector<std::string> asNobody(std::vector<std::string> command) {
  std::vector<std::string> all{loopback::findProgram("setpriv"),
                               "--reuid=65534",
                               "--regid=65534",
                               "--clear-groups",
                               "--inh-caps=-all",
                               "--bounding-set=-all"};
  all.insert(all.end(), command.begin(), command.end());
  return all;
}

struct Outcome {
  int status = -1;
  std::string output;  // both of them
};

/// Programs at home, sealed or not, by a user without privileges, with everything that leaves home
/// recorded from before they start until after they have ended.
class SealTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!whyNoLab.empty()) {
      GTEST_SKIP() << "no network lab here: " << whyNoLab;
    }
    lab = std::make_unique<NetworkLab>(home);
  }

  std::unique_ptr<ChildProcess> start(const std::vector<std::string>& command,
                                      const std::string& output = "/tmp/output") {
    std::unique_ptr<ChildProcess> started;
    unlink(output.c_str());
    NetworkLab::in("home", [&] {
      started = std::make_unique<ChildProcess>(asNobody(command), environment, output);
    });
    return started;
  }

  Outcome run(const std::vector<std::string>& command) {
    const auto started = start(command);
    const auto status = started->waitExit(patience);
    return {status.value_or(-1000), contentOf("/tmp/output")};
  }
  Outcome runSealed(const std::string& script) { return run({sealed, "sh", "-c", script}); }

  // Has a program of the same user listen there.
  void serve(const std::string& path, const std::string& host = "home") {
    NetworkLab::in(host, [&] {
      services.push_back(std::make_unique<ChildProcess>(asNobody({waysOut, "--listen", path})));
      ASSERT_EQ(services.back()->readLine(patience), "listens");
    });
  }

  Traffic traffic() {
    Traffic kinds;
    for (const auto& [kind, count] : lab->takeTraffic()) {
      kinds.insert(kind);
    }
    return kinds;
  }

  const std::string sealed = "/tmp/sealed";
  const std::string waysOut = "/tmp/ways-out";
  std::map<std::string, std::string> environment{{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}};
  std::unique_ptr<NetworkLab> lab;
  std::vector<std::unique_ptr<ChildProcess>> services;
};

}  // namespace zk::lab
