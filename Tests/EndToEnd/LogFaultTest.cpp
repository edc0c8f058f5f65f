// What becomes of the service when its log files cannot be written, and of the log files when
// somebody else is at them. Each test has a /tmp of its own.

#include <algorithm>
#include <functional>

#include <sys/stat.h>

#include "EndToEnd/Rig.h"

namespace zk::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* debugLog = "/tmp/zkturnd.log";
constexpr const char* dataPlaneLog = "/tmp/zkturnd-dp.log";
constexpr const char* egressLog = "/tmp/zk-egress.log";
constexpr const char* logs[] = {debugLog, dataPlaneLog, egressLog};

// The daemon notices within a second what became of a file.
constexpr milliseconds noticeTime{1000};

class LogFaultTest : public PrivateTmpTest {
 protected:
  // As with the daemon: a /tmp of one's own may hide it, and the loader splits paths at spaces.
  inline static const std::string standstillDisk_ = pathByDescriptor(ZK_STANDSTILL_DISK);
};

void expectService(Rig& rig) {
  const auto client = rig.allocated();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(echoes(*client, rig.peer, Bytes(5)));
  }
  EXPECT_TRUE(client->refresh(0).success());
}

bool willContain(const char* log, const std::string& text, std::size_t times = 1) {
  return eventually([&] { return count(contentOf(log), text) >= times; });
}

TEST_F(LogFaultTest, NewLinesFollowOldOnesAndBearTheirTime) {
  std::ofstream(debugLog) << "from before\n";
  const auto rig = Rig::startedBy("umask 077");
  rig->begin();
  expectService(*rig);
  EXPECT_TRUE(rig->stops());
  EXPECT_TRUE(contentOf(debugLog).starts_with("from before\n2"));
  struct {
    const char* log;
    const char* sign;  // of each line, with all digits 0
    std::size_t lines;
  } const cases[] = {{debugLog, "0000-00-00T00:00:00.000Z ", 60},
                     {dataPlaneLog, "", 60},
                     {egressLog, " [egress-probe] ", 3}};
  for (const auto& [log, sign, lines] : cases) {
    std::string content = contentOf(log);
    std::ranges::replace_if(
        content, [](char c) { return c > '0' && c <= '9'; }, '0');
    EXPECT_GE(count(content, sign), lines) << log;
    EXPECT_GE(count(content, sign) + 1, count(content, "\n")) << log;
  }
  EXPECT_EQ(static_cast<unsigned>(fs::status(dataPlaneLog).permissions()), 0600U);
  EXPECT_EQ(static_cast<unsigned>(fs::status(egressLog).permissions()), 0666U);
}

// What somebody else may have put in a directory that everybody can write.
TEST_F(LogFaultTest, RefusesWhatIsNotAPlainFileOfItsOwn) {
  const std::string precious = "/tmp/precious";
  std::vector<KitSocket> readers;
  const std::pair<const char*, std::function<void(const char*)>> cases[] = {
      {"a pipe, which would hang whoever opens it carelessly",
       [](auto log) { ASSERT_EQ(mkfifo(log, 0666), 0); }},
      {"a pipe that somebody reads",
       [&](auto log) {
         ASSERT_EQ(mkfifo(log, 0666), 0);
         readers.emplace_back(open(log, O_RDONLY | O_NONBLOCK));
       }},
      {"a folder", [](auto log) { fs::create_directory(log); }},
      {"a link", [&](auto log) { fs::create_symlink(precious, log); }},
      {"another name of a file", [&](auto log) { fs::create_hard_link(precious, log); }},
      {"a file of another user", [](auto log) {
         std::ofstream(log) << "precious";
         ASSERT_EQ(chown(log, 54321, 0), 0);
       }}};
  std::ofstream(precious) << "precious";
  for (const auto& [name, make] : cases) {
    SCOPED_TRACE(name);
    for (const char* const log : logs) {
      fs::remove(log);
      make(log);
    }
    const auto rig = Rig::ready();
    expectService(*rig);
    EXPECT_TRUE(rig->stops());
    EXPECT_EQ(contentOf(precious), "precious");
    EXPECT_TRUE(!fs::is_regular_file(dataPlaneLog) || contentOf(dataPlaneLog) == "precious");
  }
  for (const KitSocket& reader : readers) {
    char octet = 0;
    EXPECT_LE(read(reader.get(), &octet, 1), 0);
  }
}

TEST_F(LogFaultTest, NoticesWithinASecondWhatBecameOfItsFile) {
  const auto rig = Rig::ready();
  const auto client = rig->allocated();
  const auto writesAnew = [&] {
    EXPECT_TRUE(echoes(*client, rig->peer, bytes("hello")));
    return willContain(dataPlaneLog, "RECV unwrap OK from 127.0.0.1:" +
                                         std::to_string(rig->peer.port()) + " 5B → handler\n");
  };
  ASSERT_TRUE(writesAnew());
  const std::string before = contentOf(dataPlaneLog);

  fs::rename(dataPlaneLog, "/tmp/old");
  std::this_thread::sleep_for(noticeTime);
  EXPECT_TRUE(writesAnew());
  EXPECT_EQ(contentOf("/tmp/old"), before);

  fs::resize_file(dataPlaneLog, 0);
  EXPECT_TRUE(writesAnew());
  EXPECT_EQ(contentOf(dataPlaneLog).find('\0'), std::string::npos) << "a hole";

  for (const char* const log : logs) {
    fs::remove(log);
  }
  std::this_thread::sleep_for(noticeTime);
  EXPECT_TRUE(writesAnew());
  ASSERT_TRUE(rig->client()->allocate().success());
  EXPECT_TRUE(willContain(egressLog, "egress discovered = 203.0.113.9"));
  EXPECT_TRUE(willContain(debugLog, "relay OPEN ok"));

  // Somebody else's link is refused while it is there, and no longer.
  std::ofstream("/tmp/precious") << "precious";
  fs::remove(dataPlaneLog);
  fs::create_symlink("/tmp/precious", dataPlaneLog);
  std::this_thread::sleep_for(noticeTime);
  EXPECT_TRUE(echoes(*client, rig->peer, bytes("hello")));
  fs::remove(dataPlaneLog);
  std::this_thread::sleep_for(noticeTime);
  EXPECT_TRUE(writesAnew());
  EXPECT_EQ(contentOf("/tmp/precious"), "precious");
  EXPECT_TRUE(rig->stops());
}

// Nobody waits for the disk: not a datagram, not the word that the start failed, and a stop for no
// more than half a second.
TEST_F(LogFaultTest, ADiskThatStandsStill) {
  const std::string preload =
      "export ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 LD_PRELOAD=" + standstillDisk_;
  const auto rig = Rig::startedBy(preload);
  rig->begin();
  const auto client = rig->allocated();
  ASSERT_TRUE(willContain(dataPlaneLog, "RECV-THREAD start"));
  std::ofstream("/tmp/standstill").flush();
  std::this_thread::sleep_for(milliseconds(50));
  const std::string before = contentOf(dataPlaneLog);
  const auto began = Clock::now();
  std::size_t sent = 0;
  for (; Clock::now() - began < milliseconds(300); ++sent) {
    ASSERT_TRUE(echoes(*client, rig->peer, Bytes(200), {}, milliseconds(250)));
  }
  EXPECT_EQ(contentOf(dataPlaneLog), before) << "the disk did not stand still";
  fs::remove("/tmp/standstill");
  EXPECT_TRUE(willContain(dataPlaneLog, " 200B sendto=", sent));

  std::ofstream("/tmp/standstill").flush();
  ASSERT_TRUE(echoes(*client, rig->peer, Bytes(200)));
  const auto stopped = Clock::now();
  EXPECT_TRUE(rig->stops());
  EXPECT_LT(Clock::now() - stopped, milliseconds(sanitized ? 3000 : 800));

  std::ofstream("/tmp/cnf") << noDigests;
  const auto failing = Rig::startedBy(preload + " OPENSSL_CONF=/tmp/cnf");
  failing->daemon.write(failing->config.line());
  EXPECT_EQ(failing->daemon.waitExit(patience), 1);
}

}  // namespace
}  // namespace zk::test
