// Browsers in a seal: stand-ins, and the distribution's own where they are installed.

#include "Seal/RunLab.h"

namespace zk::lab {
namespace {

TEST_F(RunTest, ABrowserGetsAProfileOfItsOwn) {
  NetworkLab::change(
      "mkdir -p /tmp/home; chown nobody /tmp/home\n"
      "printf '#!/bin/sh\\necho \"$MOZ_NO_REMOTE $*\"\\n"
      "[ -z \"$HOLD\" ] || sleep 60\\n' >/tmp/firefox\n"
      "chmod 755 /tmp/firefox; cp /tmp/firefox /tmp/chromium\n");
  environment["HOME"] = "/tmp/home";
  const std::string profiles = "/tmp/home/.local/share/zkturn/";
  struct {
    std::vector<std::string> command;
    std::string told;  // by the browser, of its arguments
  } const rows[] = {
      {{"/tmp/firefox", "URL"}, "\n1 --no-remote --profile " + profiles + "firefox URL\n"},
      {{"/tmp/firefox", "-private-window"}, profiles + "firefox -private-window\n"},
      {{"/tmp/firefox", "-P", "mine"}, "\n1 -P mine\n"},
      {{"/tmp/chromium", "URL"}, "\n1 --user-data-dir=" + profiles + "chromium URL\n"},
      {{"/tmp/chromium", "--user-data-dir=/tmp/x"}, "\n1 --user-data-dir=/tmp/x\n"},
  };
  for (const auto& row : rows) {
    const Outcome outcome = run(throughProxy(row.command));
    EXPECT_NE(outcome.output.find(row.told), std::string::npos) << outcome.output;
  }
  // While one seal has the profile, a second one gets another, which goes with it.
  environment["HOLD"] = "1";
  const auto first = start(throughProxy({"/tmp/firefox"}), "/tmp/first");
  ASSERT_TRUE(eventually([] { return contentOf("/tmp/first").find("\n1 ") != std::string::npos; }));
  environment.erase("HOLD");
  const Outcome second = run(throughProxy({"/tmp/firefox"}));
  std::smatch told;
  ASSERT_TRUE(std::regex_search(second.output, told,
                                std::regex("own, (/tmp/zkturn-firefox-\\w+), for this once\n")))
      << second.output;
  EXPECT_FALSE(std::filesystem::exists(told[1].str()));
}

// The distribution's, without one setting, on a page that wants out by all that a page has.
class RealBrowserTest : public RunTest, public testing::WithParamInterface<const char*> {
 protected:
  // What left home, and what was told of it.
  std::pair<Traffic, std::string> visit(std::vector<std::string> command) {
    NetworkLab::change("rm -rf /tmp/home; mkdir -p /tmp/home; chown nobody /tmp/home");
    environment["HOME"] = "/tmp/home";
    std::remove("/tmp/report");
    const auto running = start(command, "/tmp/browser");
    eventually([] { return access("/tmp/report", F_OK) == 0; }, std::chrono::seconds(60));
    const std::string report = contentOf("/tmp/report");
    EXPECT_TRUE(std::regex_search(report, std::regex("203\\.0\\.113\\.2 \\d+ typ srflx")))
        << report << contentOf("/tmp/browser");
    running->terminate();
    running->waitExit(patience);
    return {traffic(), contentOf("/tmp/browser")};
  }
};

TEST_P(RealBrowserTest, APageGetsOutByTheProxyOnly) {
  if (loopback::findProgram(GetParam()).empty()) {
    GTEST_SKIP() << "no " << GetParam() << " here";
  }
  const std::vector<std::string> browser{GetParam(), "--headless", "http://203.0.113.1:8000/"};
  const auto [left, told] = visit(throughProxy(browser));
  EXPECT_EQ(left, toProxy);
  EXPECT_TRUE(std::regex_search(told, std::regex("kept in: \\d+ private UDP to 10.1.0.1:3478\n")))
      << told;
  // Outside, with the page in reach.
  NetworkLab::change(
      "ip -n router route add 203.0.113.1 via 10.2.0.2; ip -n internet route add 10.0.0.0/8 via "
      "203.0.113.2; ip netns exec proxy sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'");
  const Traffic leaked = visit({"/usr/bin/env", GetParam(), browser[1], browser[2]}).first;
  for (const char* const kind : {"UDP to 198.51.100.11 by wire", "UDP to 10.1.0.1 by wire"}) {
    EXPECT_TRUE(leaked.contains(kind)) << "this test proves nothing";
  }
}

INSTANTIATE_TEST_SUITE_P(Browsers, RealBrowserTest, testing::Values("firefox-esr", "chromium"),
                         [](const auto& name) { return std::string(name.param).substr(0, 7); });

// A shell that starts a browser names no profile. One that runs outside with the same profile must
// not be asked to open the page.
TEST_F(RunTest, OneThatRunsAlreadyIsNotReached) {
  if (loopback::findProgram("chromium").empty() || loopback::findProgram("Xvfb").empty()) {
    GTEST_SKIP() << "no Chromium or no Xvfb here";
  }
  NetworkLab::change(
      "rm -rf /tmp/home; mkdir -p /tmp/home /tmp/.X11-unix; chown nobody /tmp/home\n"
      "chmod 1777 /tmp/.X11-unix\n");
  environment["HOME"] = "/tmp/home";
  environment["DISPLAY"] = ":7";
  const auto screen = start({"Xvfb", ":7"}, "/tmp/screen");
  ASSERT_TRUE(eventually([] { return access("/tmp/.X11-unix/X7", F_OK) == 0; }));
  const std::string page = "chromium http://203.0.113.1:8000/";
  const auto outside = start({"sh", "-c", "chromium about:blank"}, "/tmp/outside");
  const auto socket = "/tmp/home/.config/chromium/SingletonSocket";
  ASSERT_TRUE(eventually([&] { return access(socket, F_OK) == 0; }));
  ASSERT_FALSE(outside->waitExit(milliseconds(0))) << contentOf("/tmp/outside");
  const std::string kind = "TCP to 203.0.113.1 by wire";
  traffic();
  const auto inside = start(throughProxy({"sh", "-c", page}), "/tmp/browser");
  std::this_thread::sleep_for(std::chrono::seconds(8));
  EXPECT_FALSE(traffic().contains(kind)) << contentOf("/tmp/browser");
  inside->terminate();
  inside->waitExit(patience);
  // Without a seal it is.
  const auto unsealed = start({"sh", "-c", page}, "/tmp/browser");
  EXPECT_TRUE(eventually([&] { return traffic().contains(kind); })) << contentOf("/tmp/browser");
}

TEST_F(RunTest, WhatCannotStartWithoutPrivilegesIsRefusedWithAWayOut) {
  NetworkLab::change(
      "printf '#!/bin/sh\\nexec /snap/bin/chromium \"$@\"\\n' >/tmp/chromium-browser\n"
      "printf '#!/bin/sh\\nexec /usr/bin/flatpak run org.example.App\\n' >/tmp/org.example.App\n"
      "chmod 755 /tmp/chromium-browser /tmp/org.example.App\n");
  for (const char* const script : {"/tmp/chromium-browser", "/tmp/org.example.App"}) {
    const Outcome outcome = run(throughProxy({script}));
    EXPECT_EQ(outcome.status, 125);
    EXPECT_NE(outcome.output.find("plain package"), std::string::npos) << outcome.output;
  }
}

}  // namespace
}  // namespace zk::lab
