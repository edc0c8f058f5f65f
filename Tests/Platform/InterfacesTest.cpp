#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Base/Endpoint.h"
#include "Loopback/KitSocket.h"
#include "Platform/Interfaces.h"
#include "Platform/Sockets.h"
#include "PrivateNetwork.h"

namespace zk {
namespace {

const sockaddr& generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr&>(address);
}

// What the system cannot say is an answer of its own, and a look that is kept needs no descriptor.
TEST(Interfaces, NeverTakeALookThatFailedForNoRoute) {
  const test::PrivateNetwork network;
  if (!network) {
    GTEST_SKIP() << "no namespaces here";
  }
  const sockaddr_in reached = Endpoint{*parseAddress(network.host)}.socketAddress();
  const sockaddr_in unreached = Endpoint{*parseAddress("10.8.0.1")}.socketAddress();
  const unsigned index = if_nametoindex("dead");
  const int number = dup(0);  // the one that the look will have
  close(number);
  Interfaces look;
  const auto looksRight = [&] {
    EXPECT_EQ(look.askRoute(index, generic(reached)), RouteAnswer::yes);
    EXPECT_EQ(look.askRoute(index, generic(unreached)), RouteAnswer::no);
    EXPECT_EQ(look.askRoute(9999, generic(reached)), RouteAnswer::no);
    EXPECT_EQ(look.available().back().name, "dead");
    EXPECT_EQ(look.stateOf(index), InterfaceState::usable);
    EXPECT_EQ(look.stateOf(9999), InterfaceState::gone);
  };
  looksRight();

  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_THROW(Interfaces(), LookFailed);
  EXPECT_THROW(RouteWatch(), std::system_error);
  looksRight();
  setrlimit(RLIMIT_NOFILE, &limit);

  EXPECT_EQ(std::system("ip link set end down"), 0);
  EXPECT_EQ(look.stateOf(index), InterfaceState::unusable);
  EXPECT_EQ(std::system("ip link del dead"), 0);
  EXPECT_EQ(look.stateOf(index), InterfaceState::gone);
  EXPECT_EQ(look.askRoute(index, generic(reached)), RouteAnswer::no);

  const int kernel = dup(number);
  const int nobody = open("/dev/null", O_RDWR);
  dup2(nobody, number);
  EXPECT_EQ(look.askRoute(index, generic(reached)), RouteAnswer::unknown);
  EXPECT_THROW(look.available(), LookFailed);
  EXPECT_THROW(look.isOwnAddress(generic(reached)), LookFailed);
  dup2(kernel, number);
  EXPECT_EQ(look.askRoute(index, generic(reached)), RouteAnswer::no) << "and then it knows again";
  close(kernel);
  close(nobody);
}

// To the far end, two connections with the same addresses and ports at both ends are one, and the
// newer ends the older.
TEST(Interfaces, APinnedConnectionSharesItsPortWithNoOther) {
  const test::PrivateNetwork network;
  if (!network) {
    GTEST_SKIP() << "no namespaces here";
  }
  const auto listener = loopback::KitSocket::listener();
  const sockaddr_in to = loopback::localEndpoint(listener.port()).socketAddress();
  ASSERT_EQ(std::system("echo 40000 40003 > /proc/sys/net/ipv4/ip_local_port_range"), 0);
  std::vector<Descriptor> pinned;
  std::vector<Descriptor> others;
  for (int i = 0; i < 2; ++i) {
    pinned.push_back(openStreamSocket(AF_INET, if_nametoindex("lo")));
    EXPECT_EQ(connectSocket(pinned.back().get(), generic(to), Deadline::max(), nullptr),
              Wait::ready);
  }
  for (int i = 0; i < 4; ++i) {
    others.push_back(openStreamSocket(AF_INET, std::nullopt));
    try {
      connectSocket(others.back().get(), generic(to), SteadyClock::now() + std::chrono::seconds(1),
                    nullptr);
    } catch (const std::system_error&) {  // no more ports
    }
  }
  for (const Descriptor& each : pinned) {
    const loopback::KitSocket far = listener.accepted();
    EXPECT_TRUE(loopback::KitSocket(dup(each.get())).send(bytesOf("x")));
    EXPECT_TRUE(loopback::waitReadable(far.get(), std::chrono::seconds(1)));
    char said = 0;
    EXPECT_EQ(recv(far.get(), &said, 1, 0), 1) << errorText(errno);
  }
}

}  // namespace
}  // namespace zk
