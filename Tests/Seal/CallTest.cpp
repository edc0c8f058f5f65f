// Calls of browsers in a seal: with each other, and with a peer who speaks for himself.

#include <sstream>

#include "Loopback/ForeignProxy.h"
#include "Seal/RunLab.h"

namespace zk::lab {
namespace {

using loopback::findProgram;
using loopback::ForeignProxy;

// What one end of a call has told last.
struct End {
  explicit End(const std::string& name) : told(contentOf("/tmp/report" + name)) {
    std::istringstream(told) >> state >> upAfter >> restarts >> data >> sound >> picture;
  }
  bool isUp() const { return state == "connected" || state == "completed"; }

  const std::string told;
  std::string state;
  double upAfter = 0;  // milliseconds since it heard of the other
  int restarts = 0;
  int data = 0;     // messages
  int sound = 0;    // packets
  int picture = 0;  // frames
};

// Whether both hear more of each other than until now, and `a` has called anew so often.
bool goesOn(int restarts = 0) {
  const End a("a");
  const End b("b");
  return eventually(
      [&] {
        const End nowA("a");
        const End nowB("b");
        return nowA.isUp() && nowB.isUp() && nowA.restarts >= restarts && nowA.data > a.data + 10 &&
               nowB.data > b.data + 10 && nowB.picture > b.picture + 10;
      },
      std::chrono::seconds(60));
}

// What `own` has told of itself, and the other has seen of it.
void expectNothingButTheProxyIsSeen(const End& own, const End& other) {
  std::set<std::string> found;
  const auto look = [&](const std::string& told, const std::regex& pattern) {
    for (std::sregex_iterator one(told.begin(), told.end(), pattern), none; one != none; ++one) {
      const std::string address = (*one)[1];
      found.insert(address.ends_with(".local") ? "mDNS" : address);
    }
  };
  look(own.told, std::regex("(?:candidate:\\S+ \\d \\w+ \\d+|raddr) (\\S+)"));
  look(other.told, std::regex("sees ([\\w.-]+)"));
  EXPECT_EQ(found, (std::set<std::string>{"0.0.0.0", NetworkLab::proxyPublic, "mDNS"}))
      << own.told << other.told;
}

class CallTest : public RunTest {
 protected:
  void SetUp() override {
    RunTest::SetUp();
    if (lab != nullptr) {
      NetworkLab::change("rm -rf /tmp/home /tmp/report*; mkdir /tmp/home; chown nobody /tmp/home");
      environment["HOME"] = "/tmp/home";
    }
  }
  // With a fresh profile, and no setting.
  std::unique_ptr<ChildProcess> call(const std::string& browser, const std::string& ends,
                                     const std::string& beside = "true") {
    return start(throughProxy({"sh", "-c",
                               beside + " & exec " + browser +
                                   " --headless 'http://203.0.113.1:8000/call#" + ends + "'"}),
                 "/tmp/" + browser);
  }
};

TEST_F(CallTest, TwoBrowsersCallEachOther) {
  if (findProgram("chromium").empty() || findProgram("firefox-esr").empty()) {
    GTEST_SKIP() << "needs two browsers: apt-get install chromium firefox-esr";
  }
  std::remove("/tmp/go");
  const auto a = call("chromium", "a-b",
                      "(until [ -e /tmp/go ]; do sleep 0.1; done; "
                      "exec python3 /tmp/sealed_client.py flood)");
  const auto b = call("firefox-esr", "b-a");
  ASSERT_TRUE(goesOn()) << contentOf("/tmp/chromium") << contentOf("/tmp/firefox-esr");
  EXPECT_LT(End("a").upAfter, 5000);
  EXPECT_LT(End("b").upAfter, 5000);
  {
    // How fast it goes meanwhile is the proxy's and the machine's business as well.
    SCOPED_TRACE("a peer floods another program in the seal");
    std::ofstream("/tmp/go") << "now";
    EXPECT_TRUE(eventually([] {
      return std::regex_search(contentOf("/tmp/chromium"), std::regex("\nflood: \\d{3,}\n"));
    })) << contentOf("/tmp/chromium");
    EXPECT_TRUE(goesOn()) << End("a").told << End("b").told;
  }
  {
    SCOPED_TRACE("the proxy is killed and comes back");
    const int restarts = End("a").restarts;
    NetworkLab::stopProxy();
    NetworkLab::startProxy();
    EXPECT_TRUE(goesOn(restarts + 1)) << End("a").told << End("b").told;
  }
  EXPECT_GT(End("a").picture, 0);
  EXPECT_GT(End("a").sound, 0);
  expectNothingButTheProxyIsSeen(End("a"), End("b"));
  expectNothingButTheProxyIsSeen(End("b"), End("a"));
  EXPECT_EQ(traffic(), toProxy);
}

// A proxy, a browser, and what a program hears when a stranger answers beside the peer it has
// asked.
using Behind = std::tuple<const char*, const char*, const char*>;
class ForeignProxyTest : public CallTest, public testing::WithParamInterface<Behind> {};

TEST_P(ForeignProxyTest, CarriesAProgramAndACall) {
  const auto& [name, browser, heard] = GetParam();
  const std::string hindrance = ForeignProxy::hindrance(name);
  if (!hindrance.empty() || !libwebrtc || findProgram(browser).empty()) {
    GTEST_SKIP() << (hindrance.empty()
                         ? "needs libwebrtc, put into the build by RealClients, and " +
                               std::string(browser)
                         : hindrance);
  }
  std::optional<ForeignProxy> server;
  NetworkLab::in("proxy", [&] {
    server.emplace(std::get<0>(GetParam()), std::nullopt, NetworkLab::proxyInner);
  });
  proxy = std::string(NetworkLab::proxyInner) + ":" + std::to_string(server->port());
  const Outcome outcome =
      run(throughProxy({"python3", "/tmp/sealed_client.py", "slow", "name", "datagrams"}));
  EXPECT_NE(outcome.output.find(
                "\nslow: 6291456\nname: 203.0.113.1\ndatagrams: " + std::string(heard) + "\n"),
            std::string::npos)
      << outcome.output;
  std::filesystem::copy(
      "/proc/self/fd/" + std::to_string(libwebrtc.get()), "/tmp/node_modules",
      std::filesystem::copy_options::recursive | std::filesystem::copy_options::skip_existing);
  std::unique_ptr<ChildProcess> peer;
  NetworkLab::in("internet", [&] {
    peer = std::make_unique<ChildProcess>(
        std::vector<std::string>{findProgram("node"), "/tmp/call.js", "http://203.0.113.1:8000",
                                 "b", "a"},
        ChildProcess::Environment{}, "/tmp/peer");
  });
  const auto caller = call(browser, "a-b");
  EXPECT_TRUE(goesOn()) << contentOf("/tmp/peer") << contentOf("/tmp/" + std::string(browser));
  EXPECT_LT(End("b").upAfter, 5000);
  expectNothingButTheProxyIsSeen(End("a"), End("b"));
  EXPECT_EQ(traffic(), toProxy);
}

INSTANTIATE_TEST_SUITE_P(
    Proxies, ForeignProxyTest,
    testing::Values(Behind{"v2ray", "chromium", "peer 198.51.100.11, stranger 198.51.100.11"},
                    Behind{"ss-local", "firefox-esr",
                           "peer 198.51.100.11, stranger 198.51.100.13"}),
    [](const auto& row) { return std::string(std::get<0>(row.param)).substr(0, 2); });

}  // namespace
}  // namespace zk::lab
