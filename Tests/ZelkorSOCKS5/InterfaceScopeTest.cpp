#include <algorithm>
#include <thread>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Platform/Sockets.h"
#include "Support.h"
#include "ZelkorSOCKS5/InterfaceScope.h"

namespace zk {
namespace {

constexpr const char* farHost = "203.0.113.9";

class Scope : public testing::Test {
 protected:
  Scope() { unsetenv("ZK_EGRESS_VIA_DEFAULT"); }
  ~Scope() override { InterfaceScope::modeOverride.reset(); }

  // What this machine would pin to, found without InterfaceScope.
  static std::optional<NetworkInterface> physical() {
    const auto all = availableInterfaces();
    const auto first = std::find_if(all.begin(), all.end(), [](const NetworkInterface& one) {
      return one.type != InterfaceType::other;
    });
    return first == all.end() ? std::nullopt : std::optional(*first);
  }
  static int indexBoundTo(int socket) {
    int index = -1;
    socklen_t length = sizeof index;
    EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_BINDTOIFINDEX, &index, &length), 0);
    return index;
  }
};

TEST_F(Scope, NeverPinsTheLoopback) {
  for (const char* const host : {"localhost", "LocalHost", "::1", "0.0.0.0", "127.0.0.1",
                                 "127.1.2.3", "127.", "127.example.org"}) {
    for (const std::optional<bool> override : {std::optional<bool>(), {false}, {true}}) {
      EXPECT_FALSE(InterfaceScope::shouldScope(host, override)) << host;
    }
  }
  for (const char* const host :
       {"[::1]", "0:0:0:0:0:0:0:1", "localhost.", "1127.0.0.1", "", "::"}) {
    EXPECT_TRUE(InterfaceScope::shouldScope(host, std::nullopt)) << host;
  }
}

TEST_F(Scope, LetsTheOverrideDecideBeforeTheEnvironment) {
  const auto decide = [](std::optional<bool> override) {
    return InterfaceScope::shouldScope(farHost, override);
  };
  EXPECT_TRUE(decide(std::nullopt));
  EXPECT_TRUE(decide(false));
  EXPECT_FALSE(decide(true));
  {
    const test::Environment viaDefault("ZK_EGRESS_VIA_DEFAULT", "1");
    EXPECT_FALSE(decide(std::nullopt));
    EXPECT_TRUE(decide(false));
    EXPECT_FALSE(decide(true));
  }
  for (const char* const value : {"", "0", "true", "yes", "1 ", " 1", "11"}) {
    const test::Environment other("ZK_EGRESS_VIA_DEFAULT", value);
    EXPECT_TRUE(decide(std::nullopt)) << '"' << value << '"';
  }
  InterfaceScope::modeOverride = true;
  EXPECT_FALSE(InterfaceScope::shouldScope(farHost));
  InterfaceScope::modeOverride = false;
  const test::Environment viaDefault("ZK_EGRESS_VIA_DEFAULT", "1");
  EXPECT_TRUE(InterfaceScope::shouldScope(farHost));
}

TEST_F(Scope, PinsSocketsAndParametersToTheFirstPhysicalInterface) {
  const auto expected = physical();
  const int index = expected ? static_cast<int>(expected->index) : 0;
  EXPECT_EQ(InterfaceScope::name(), expected ? std::optional(expected->name) : std::nullopt);
  EXPECT_EQ(InterfaceScope::ifIndex(), expected ? std::optional(expected->index) : std::nullopt);

  const struct {
    const char* host;
    std::optional<bool> override;
    bool pinned;
  } cases[] = {{"127.0.0.1", false, false},
               {farHost, true, false},
               {farHost, std::nullopt, true},
               {farHost, false, true}};
  for (const auto& c : cases) {
    const int socket = openUDPSocket();
    InterfaceScope::bind(socket, c.host, c.override);
    EXPECT_EQ(indexBoundTo(socket), c.pinned ? index : 0) << c.host;
    closeSocket(socket);
    ConnectionParameters parameters;
    EXPECT_EQ(&InterfaceScope::scoped(parameters, c.host, c.override), &parameters);
    EXPECT_EQ(parameters.requiredInterface.has_value(), c.pinned && index != 0) << c.host;
  }
  InterfaceScope::modeOverride = true;
  const int socket = openUDPSocket();
  InterfaceScope::bind(socket, farHost);
  EXPECT_EQ(indexBoundTo(socket), 0);
  closeSocket(socket);
  InterfaceScope::bind(-1, farHost, false);  // fails, and nobody hears of it
}

TEST_F(Scope, ResolvesOnceForManyThreadsAndAgainAfterInvalidation) {
  for (int round = 0; round < 3; ++round) {
    InterfaceScope::invalidate();
    std::vector<std::optional<std::string>> names(6);
    std::vector<std::thread> threads;
    for (auto& name : names) {
      threads.emplace_back([&name] {
        name = InterfaceScope::name();
        if (const auto interface = InterfaceScope::nwInterface()) {
          EXPECT_EQ(interface->name, name);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    for (const auto& name : names) {
      EXPECT_EQ(name.has_value(), physical().has_value());
      EXPECT_EQ(name, names[0]);
    }
  }
}

}  // namespace
}  // namespace zk
