// The daemon with SOCKS5 servers that other people wrote, each started here on the loopback.

#include <sched.h>
#include <sys/mount.h>

#include "EndToEnd/Rig.h"
#include "Loopback/ForeignProxy.h"
#include "Loopback/Load.h"

namespace zk::test {
namespace {

const SOCKS5Login login{"zkturnd-test", "wonderful-proxy"};
// The same as a line of /etc/shadow has it.
constexpr const char* hashedPassword =
    "$6$zkturndtest$BoO6OARBBGfNrwzUuG6lSQTRah7anvt6hA/GhlrIZyTiM"
    "tdgFAyYyVqDTOHqyHKM00HDHyGbtJ/Cc7undNaWs0";

struct Served {
  Served(const ForeignProxy& proxy, const std::optional<SOCKS5Login>& as)
      : daemon(daemonBinary(), {{"ZK_STUN_IPS", stun.target()}}) {
    const SOCKS5Login who = as.value_or(SOCKS5Login{});
    port = daemon.serve(
        {.proxyPort = proxy.port(), .proxyUser = who.user, .proxyPassword = who.password});
  }

  STUNResponder stun{STUNScript{.mappedIP = egressIP}};
  DaemonProcess daemon;
  std::uint16_t port;
};

void expectService(const ForeignProxy& proxy, const std::optional<SOCKS5Login>& as) {
  Served served(proxy, as);
  const EchoPeer peer;
  const EchoPeer other;
  TURNClient client(served.port);
  TURNClient second(served.port);
  client.setTimeout(longPatience);
  const auto answer = client.allocate();
  ASSERT_TRUE(answer.success()) << answer.errorCode() << proxy.output();
  EXPECT_EQ(answer.relayedAddress()->ip(), egressIP);
  EXPECT_GT(served.stun.requests(), 0U);
  ASSERT_TRUE(client.bindChannel(0x4000, peer.endpoint()).success());
  ASSERT_TRUE(second.allocate().success());
  ASSERT_TRUE(second.createPermission(other.endpoint()).success());
  // Two clients, two forms, two peers, and sizes up to what a path carries in one piece.
  for (const std::size_t size : {16U, 200U, 1200U, 1400U}) {
    for (const CallLeg& way :
         {CallLeg::onChannel(client, 0x4000), CallLeg::indications(client, other.endpoint()),
          CallLeg::indications(second, other.endpoint())}) {
      const auto result =
          runLoad({way}, {.payload = size, .outstanding = 1, .count = 50, .patience = patience});
      EXPECT_LE(result.losses(), 1U);
      EXPECT_EQ(result.strange, 0U);
    }
  }
  served.daemon.closeInput();
  EXPECT_EQ(served.daemon.waitExit(patience), 0);
}

class RealProxyTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (const auto hindrance = ForeignProxy::hindrance(GetParam()); !hindrance.empty()) {
      GTEST_SKIP() << hindrance;
    }
  }
};

TEST_P(RealProxyTest, Serves) {
  expectService(ForeignProxy(GetParam()), {});
}

TEST_P(RealProxyTest, ServesWithALogin) {
  if (GetParam() == std::string("ss-local")) {
    GTEST_SKIP() << "ss-local asks for no login";
  }
  // danted knows the users of the machine only: this one is added where nobody else sees it.
  const TemporaryFolder folder;
  const auto addLine = [&](const fs::path& file, const std::string& line) {
    const std::string copy = folder.write(file.filename(), contentOf(file) + line + '\n');
    return mount(copy.c_str(), file.c_str(), nullptr, MS_BIND, nullptr) == 0;
  };
  const bool isDante = GetParam() == std::string("danted");
  if (isDante &&
      (unshare(CLONE_NEWNS) != 0 ||
       mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
       !addLine("/etc/passwd", login.user + ":x:54321:54321::/nonexistent:/bin/false") ||
       !addLine("/etc/shadow", login.user + ":" + hashedPassword + ":19000:0:99999:7:::"))) {
    GTEST_SKIP() << "needs root: sudo scripts/test";
  }
  {
    const ForeignProxy proxy(GetParam(), login);
    expectService(proxy, login);
    const Served served(proxy, SOCKS5Login{login.user, "wrong"});
    TURNClient client(served.port);
    client.setTimeout(longPatience);
    EXPECT_EQ(client.allocate().errorCode(), 500);
  }
  if (isDante) {
    umount("/etc/shadow");
    umount("/etc/passwd");
  }
}

INSTANTIATE_TEST_SUITE_P(Distribution, RealProxyTest, testing::ValuesIn(ForeignProxy::names));

}  // namespace
}  // namespace zk::test
