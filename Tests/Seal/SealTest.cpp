// The seal alone: nobody carries anything.

#include <csignal>
#include <sstream>

#include <sys/mount.h>
#include <sys/sysmacros.h>

#include "Seal/SealLab.h"

namespace zk::lab {
namespace {

// Everything at once, in the seal and outside of it.
class WaysOutTest : public SealTest {
 protected:
  // What the program said of each way.
  std::map<std::string, std::string> ways(const std::string& seal) {
    NetworkLab::change(
        "mkdir -p /run/service /run/later /run/user/65534 /tmp/multiplexer\n"
        "chown nobody /run/service /run/later /run/user/65534 /tmp/multiplexer\n"
        "rm -f /tmp/go /tmp/started /tmp/heartbeat\n");
    environment["XDG_RUNTIME_DIR"] = "/run/user/65534";
    for (const char* const path : {"/run/service/socket", "/run/user/65534/bus", "/tmp/agent",
                                   "/tmp/multiplexer/socket", "@service"}) {
      serve(path);
    }
    serve("/tmp/elsewhere", "proxy");
    const auto started =
        start({"/bin/sh", "-c", "cd /run/user/65534 && exec /tmp/with-socket " + seal + waysOut});
    EXPECT_TRUE(eventually([] { return access("/tmp/started", F_OK) == 0; }))
        << contentOf("/tmp/output");
    // Services come and go while a program is sealed.
    NetworkLab::change(
        "rm /tmp/multiplexer/socket; rm -r /run/service; mkdir /run/service\n"
        "chown nobody /run/service\n");
    for (const char* const path :
         {"/run/service/socket", "/run/later/socket", "/tmp/multiplexer/socket"}) {
      serve(path);
    }
    std::ofstream("/tmp/go") << "now";
    EXPECT_EQ(started->waitExit(patience), 0) << contentOf("/tmp/output");
    std::map<std::string, std::string> found;
    std::ifstream lines("/tmp/output");
    for (std::string line; std::getline(lines, line);) {
      const auto space = line.rfind(' ');
      found[line.substr(0, space)] = line.substr(space + 1);
    }
    return found;
  }
};

TEST_F(WaysOutTest, NoneIsOpen) {
  auto found = ways(sealed + " ");
  std::size_t looked = 0;
  for (const auto& [way, state] : found) {
    if (!way.starts_with("sent")) {
      EXPECT_EQ(state, "closed") << way;
      ++looked;
    }
  }
  EXPECT_EQ(looked, 25U);
  const std::string output = contentOf("/tmp/output");
  for (const char* const to : {"198.51.100.11", "203.0.113.1", "10.1.0.1", "192.168.1.1",
                               "224.0.0.251", "239.255.255.250", "255.255.255.255"}) {
    EXPECT_TRUE(std::regex_search(output, std::regex(std::string("sent \\d+ to ") + to))) << to;
  }
  EXPECT_EQ(traffic(), Traffic{});
  // What the program has left behind has gone with it.
  const std::string last = contentOf("/tmp/heartbeat");
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(contentOf("/tmp/heartbeat"), last);
}

// Without this, the test above proves nothing.
TEST_F(WaysOutTest, OutsideOfASealTheyAreSeenToLeak) {
  if (sanitized) {
    GTEST_SKIP() << "what sanitizers say of ptrace is no way out";
  }
  for (const auto& [way, state] : ways("")) {
    // What belongs to the seal itself is not there outside of it.
    const bool isOfSeal = std::regex_search(way, std::regex("process 1|of the tun|lies under|cap"));
    if (way == "calls of 32-bit programs") {
      continue;  // not every kernel has them
    }
    EXPECT_EQ(state, isOfSeal ? "closed" : "open") << way;
  }
  const Traffic expected{"UDP to 198.51.100.11 by wire", "UDP to 203.0.113.1 by wire",
                         "UDP to 10.1.0.1 by wire",      "UDP to 192.168.1.1 by wire",
                         "UDP to 224.0.0.251 by wire",   "UDP to 239.255.255.250 by wire",
                         "UDP to fd00:1::1 by wire",     "TCP to 203.0.113.1 by wire",
                         "TCP to 10.1.0.1 by wire"};
  Traffic seen = traffic();
  for (const std::string& kind : expected) {
    EXPECT_TRUE(seen.contains(kind)) << kind;
  }
  NetworkLab::change("kill $(cat /tmp/left-behind)\n");
}

TEST_F(SealTest, TheStatusIsTheCommands) {
  EXPECT_EQ(runSealed("exit 7").status, 7);
  EXPECT_EQ(runSealed("kill -9 $$").status, 128 + 9);
  const Outcome absent = run({sealed, "no-such-program"});
  EXPECT_EQ(absent.status, 127);
  EXPECT_EQ(absent.output, "zkturn: cannot run no-such-program: No such file or directory\n");
  EXPECT_EQ(run({sealed, "/tmp"}).status, 126);
}

TEST_F(SealTest, LimitsSignalsAndMaskAreTheCommandsOwn) {
  if (sanitized) {
    GTEST_SKIP() << "sanitizers lower the limit on core dumps";
  }
  const char* const look =
      "ulimit -n; ulimit -c; umask; grep -E '^Sig(Blk|Ign)' /proc/self/status; "
      "echo \\$DBUS_SESSION_BUS_ADDRESS\\$SESSION_MANAGER";
  environment["DBUS_SESSION_BUS_ADDRESS"] = "";
  const std::string before = "ulimit -n 1000; ulimit -c 5; umask 027; trap '' HUP CHLD; exec ";
  const Outcome outside = run({"/bin/bash", "-c", before + "sh -c \"" + look + "\""});
  environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/run/bus";
  const Outcome inside = run({"/bin/bash", "-c", before + sealed + " sh -c \"" + look + "\""});
  EXPECT_EQ(inside.output, outside.output);
  EXPECT_EQ(inside.status, 0);
}

TEST_F(SealTest, TerminationIsPassedOn) {
  for (const int signal : {SIGTERM, SIGHUP}) {
    std::remove("/tmp/ready");
    const auto running = start({sealed, "bash", "-c",
                                "trap 'exit 3' TERM; trap 'exit 4' HUP; >/tmp/ready; "
                                // A signal just before a read is none until that ends.
                                "until read -t 0.1; do :; done <>/dev/ptmx"});
    ASSERT_TRUE(eventually([] { return access("/tmp/ready", F_OK) == 0; }));
    running->sendSignal(signal);
    EXPECT_EQ(running->waitExit(patience), signal == SIGTERM ? 3 : 4);
  }
}

// Process 1 may be killed as well, when memory is short say.
TEST_F(SealTest, NothingOutlivesWhoSealedIt) {
  for (const bool isOutside : {true, false}) {
    std::remove("/tmp/beat");
    const auto running =
        start({sealed, "bash", "-c", "setsid sh -c 'while :; do date +%N >/tmp/beat; done'"});
    ASSERT_TRUE(eventually([] { return !contentOf("/tmp/beat").empty(); }));
    const std::string outside = std::to_string(running->pid());
    const std::string inside = contentOf("/proc/" + outside + "/task/" + outside + "/children");
    kill(std::stoi(isOutside ? outside : inside), SIGKILL);
    EXPECT_EQ(running->waitExit(patience), isOutside ? -SIGKILL : 128 + SIGKILL);
    std::string last;
    EXPECT_TRUE(eventually([&] {
      last = contentOf("/tmp/beat");
      std::this_thread::sleep_for(milliseconds(200));
      return last == contentOf("/tmp/beat");
    }));
  }
}

// Where it cannot be made, the command does not run, and people are told what to do.
TEST_F(SealTest, ARefusalNamesTheReason) {
  const std::string command = sealed + " touch /tmp/ran";
  struct {
    const char* name;
    std::string shell;
    const char* sentence;
  } const rows[] = {
      {"a network socket", "exec " + command + " </dev/udp/10.1.0.1/9",
       "standard input is a socket of the network"},
      {"a folder", "exec " + command + " </run", "standard input is a folder"},
      {"a working folder that does not show", "cd /run/service && exec " + command,
       "the working folder does not show"},
      {"no descriptors", "ulimit -n 6; exec " + command, "cannot make the seal"},
  };
  NetworkLab::change("mkdir -p /run/service");
  for (const auto& row : rows) {
    const Outcome refused = run({"/bin/bash", "-c", row.shell});
    EXPECT_EQ(refused.status, 125) << row.name;
    EXPECT_NE(refused.output.find(row.sentence), std::string::npos) << refused.output;
  }
  // The limit of a namespace of its own stands for that of the machine.
  const std::string none =
      "unshare --user --map-root-user sh -c 'echo 0 >/proc/sys/user/max_user_namespaces; exec " +
      command + "' >/tmp/output 2>&1";
  unlink("/tmp/output");
  EXPECT_EQ(std::system(none.c_str()), 125 << 8);
  EXPECT_NE(contentOf("/tmp/output").find("user.max_user_namespaces is 0 here; as root"),
            std::string::npos)
      << contentOf("/tmp/output");
  ::chmod("/dev/net/tun", 0600);
  EXPECT_NE(run({sealed, "touch", "/tmp/ran"}).output.find("chmod 666 /dev/net/tun"),
            std::string::npos);
  ::chmod("/dev/net/tun", 0666);
  EXPECT_NE(access("/tmp/ran", F_OK), 0);
}

// Each call that process 1 makes until all is made and locked, with how many of its kind came
// before, and itself.
std::vector<std::pair<std::string, int>> callsOfTheMaking(const std::string& trace) {
  std::vector<std::pair<std::string, int>> calls;
  std::map<std::string, int> counts;
  const std::regex line("^(\\d+) +(\\w+)\\((.*)");
  std::istringstream lines(trace);
  std::string outside;
  std::smatch call;
  for (std::string each; std::getline(lines, each);) {
    if (!std::regex_search(each, call, line)) {
      continue;
    }
    outside = outside.empty() ? call[1].str() : outside;
    const std::string name = call[2];
    const std::string rest = call[3];
    if (call[1] == outside) {
      continue;
    }
    const int number = ++counts[name];
    // What may show and is not there does not; what cannot be closed or freed stays.
    const bool isOfNoConsequence = rest.find("O_PATH") != rest.npos || name == "close" ||
                                   name == "munmap" || rest.starts_with("AF_UNIX");
    if (!isOfNoConsequence) {
      calls.emplace_back(name, number);
    }
    if (name == "sendmsg") {
      break;
    }
  }
  return calls;
}

TEST_F(SealTest, WhereOneCallOfItsMakingFailsTheCommandDoesNotRun) {
  if (sanitized) {
    GTEST_SKIP() << "leaks cannot be looked for under strace";
  }
  if (loopback::findProgram("strace").empty()) {
    GTEST_SKIP() << "no strace here";
  }
  const std::vector<std::string> command{sealed, "touch", "/tmp/ran"};
  const auto traced = [&](std::vector<std::string> options) {
    std::remove("/tmp/ran");
    options.insert(options.begin(), {"strace", "-f", "-qq", "-o", "/tmp/trace"});
    options.insert(options.end(), command.begin(), command.end());
    return run(options).status;
  };
  EXPECT_EQ(traced({}), 0);
  const auto calls = callsOfTheMaking(contentOf("/tmp/trace"));
  EXPECT_GT(calls.size(), 60U);
  for (const auto& [name, number] : calls) {
    const std::string fault = "inject=" + name + ":error=EPERM:when=" + std::to_string(number);
    EXPECT_NE(traced({"-e", fault}), 0) << fault;
    EXPECT_NE(access("/tmp/ran", F_OK), 0) << fault;
  }
}

// Windows and sound, and the session bus for those who ask for it.
TEST_F(SealTest, WhatProgramsNeedToBeSeenAndHeardShows) {
  NetworkLab::change(
      "mkdir -p /run/user/65534/pulse /run/udev/data /tmp/.X11-unix; touch /run/udev/data/c1\n"
      "chown -R nobody /run/user/65534; chmod 1777 /tmp/.X11-unix\n");
  environment["XDG_RUNTIME_DIR"] = "/run/user/65534";
  environment["WAYLAND_DISPLAY"] = "wayland-7";
  environment["XAUTHORITY"] = "/run/user/65534/key";
  environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/run/user/65534/bus,guid=1";
  std::ofstream("/run/user/65534/key") << "key";
  const std::string shown[] = {"/run/user/65534/wayland-7", "/run/user/65534/pulse/native",
                               "/run/user/65534/pipewire-0", "/tmp/.X11-unix/X7"};
  const std::string bus = "/run/user/65534/bus";
  serve(bus);
  for (const std::string& path : shown) {
    serve(path);
  }
  const std::string look =
      "cat $XAUTHORITY; ls /run/udev/data; stat -c %a $XDG_RUNTIME_DIR; "
      "echo $DBUS_SESSION_BUS_ADDRESS; " +
      waysOut + " --opens " + bus;
  std::string open;
  for (const std::string& path : shown) {
    open += " " + path;
  }
  EXPECT_EQ(run({sealed, "sh", "-c", look + open}).output,
            "keyc1\n700\n\n" + bus + " closed\n" + shown[0] + " open\n" + shown[1] + " open\n" +
                shown[2] + " open\n" + shown[3] + " open\n");
  EXPECT_EQ(run({sealed, "--keep-bus", "sh", "-c", look}).output,
            "keyc1\n700\nunix:path=/run/user/65534/bus,guid=1\n" + bus + " open\n");
}

// ---- The lab -----------------------------------------------------------------------------------

// A folder, opened: the lab has a /tmp of its own, which may lie over it.
Descriptor opened(const std::filesystem::path& folder) {
  return Descriptor(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// The lab's udev: everybody may open the tun, as on most machines.
void equip(const Descriptor& programs, const Descriptor& scripts, const Descriptor& farSide) {
  const auto copy = [](const Descriptor& folder, const char* from, const char* to) {
    std::filesystem::copy_file("/proc/self/fd/" + std::to_string(folder.get()) + "/" + from, to);
    chmod(to, 0755);
  };
  std::filesystem::current_path("/");  // ours may be hidden, and a seal enters its own by its path
  copy(programs, "Sealed", "/tmp/sealed");
  copy(programs, "zkturn", "/tmp/zkturn");
  copy(scripts, "sealed_client.py", "/tmp/sealed_client.py");
  copy(farSide, "far_side.py", "/tmp/far_side.py");
  copy(farSide, "call.js", "/tmp/call.js");
  copy(programs, "WaysOut", "/tmp/ways-out");
  copy(programs, "WaysOut", "/tmp/setuid");
  chmod("/tmp/setuid", 04755);
  std::ofstream("/tmp/with-socket")
      << "#!/bin/bash\nexec 5</dev/udp/198.51.100.11/9; exec \"$@\"\n";
  chmod("/tmp/with-socket", 0755);
  mknod("/run/tun", S_IFCHR | 0666, makedev(10, 200));
  chmod("/run/tun", 0666);
  if (mount("/run/tun", "/dev/net/tun", nullptr, MS_BIND, nullptr) != 0) {
    whyNoLab = "no /dev/net/tun";
  }
}

}  // namespace
}  // namespace zk::lab

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    const zk::Descriptor programs = zk::lab::opened(std::filesystem::path(ZK_SEALED).parent_path());
    const zk::Descriptor scripts = zk::lab::opened(ZK_SEAL_TESTS);
    const zk::Descriptor farSide = zk::lab::opened(ZK_FAR_SIDE);
    zk::lab::libwebrtc = zk::lab::opened(ZK_WRTC);
    zk::lab::whyNoLab = zk::lab::enterPrivateMachine(ZK_SEALED);
    if (zk::lab::whyNoLab.empty()) {
      zk::lab::equip(programs, scripts, farSide);
    }
  }
  return RUN_ALL_TESTS();
}
