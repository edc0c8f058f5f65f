// What becomes of the service when its log files cannot be written, and of the log files when
// somebody else moves them about. Each test has a /tmp of its own.

#include <sys/stat.h>

#include "EndToEnd/Rig.h"

namespace zk::test {
namespace {

constexpr const char* debugLog = "/tmp/zkturnd.log";
constexpr const char* dataPlaneLog = "/tmp/zkturnd-dp.log";
constexpr const char* egressLog = "/tmp/zk-egress.log";

class LogFaultTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!tmp.mounted()) {
      GTEST_SKIP() << "needs root, for a /tmp of its own";
    }
  }

  static void expectService(Rig& rig) {
    const auto client = rig.allocated();
    for (int i = 0; i < 20; ++i) {
      EXPECT_TRUE(echoes(*client, rig.peer, bytes("hello")));
    }
    EXPECT_TRUE(client->refresh(0).success());
  }

  // One sanitizer keeps megabytes there that have no name.
  const PrivateTmp tmp{sanitized ? 8192 : 256};
};

TEST_F(LogFaultTest, AFullDiskCostsLinesOnly) {
  const auto rig = Rig::ready();
  expectService(*rig);
  {
    std::ofstream filler("/tmp/filler");
    while (filler.put('x')) {
    }
  }
  const auto size = fs::file_size(dataPlaneLog);
  expectService(*rig);
  EXPECT_LE(fs::file_size(dataPlaneLog), size + 4096) << "the disk was not full";
  fs::remove("/tmp/filler");
  expectService(*rig);
  EXPECT_TRUE(becomesTrue([&] { return fs::file_size(dataPlaneLog) > size + 1000; }));
  EXPECT_TRUE(rig->stops());
}

TEST_F(LogFaultTest, LogsThatCannotBeOpenedCostNothingElse) {
  // What not even root can write. A pipe without a reader would hang whoever opens it carelessly.
  for (const char* const log : {debugLog, dataPlaneLog, egressLog}) {
    ASSERT_EQ(mkfifo(log, 0666), 0);
  }
  const auto rig = Rig::ready();
  expectService(*rig);
  EXPECT_TRUE(rig->stops());
  for (const char* const log : {debugLog, dataPlaneLog, egressLog}) {
    EXPECT_TRUE(fs::is_fifo(log));
    fs::remove(log);
    fs::create_directory(log);
  }
  const auto other = Rig::ready();
  expectService(*other);
  // The data-plane log takes up its work as soon as it can.
  fs::remove(dataPlaneLog);
  std::this_thread::sleep_for(milliseconds(1000));
  expectService(*other);
  EXPECT_TRUE(fs::is_regular_file(dataPlaneLog));
  EXPECT_TRUE(other->stops());
}

TEST_F(LogFaultTest, LogsThatAreMovedAreNoticedWithinASecond) {
  const auto rig = Rig::ready();
  const auto client = rig->allocated();
  const auto echo = [&] { return echoes(*client, rig->peer, bytes("hello")); };
  ASSERT_TRUE(echo());
  const std::string before = contentOf(dataPlaneLog);
  EXPECT_NE(before.find("RECV unwrap OK from 127.0.0.1:" + std::to_string(rig->peer.port()) +
                        " 5B → handler\n"),
            std::string::npos);

  fs::rename(dataPlaneLog, "/tmp/old");
  std::this_thread::sleep_for(milliseconds(1000));
  ASSERT_TRUE(echo());
  EXPECT_TRUE(contentOf("/tmp/old").starts_with(before)) << "truncated";
  EXPECT_NE(contentOf(dataPlaneLog).find("SEND fd="), std::string::npos);

  fs::remove(dataPlaneLog);
  fs::remove(egressLog);
  fs::remove(debugLog);
  std::this_thread::sleep_for(milliseconds(1000));
  ASSERT_TRUE(echo());
  ASSERT_TRUE(rig->client()->allocate().success());
  EXPECT_NE(contentOf(dataPlaneLog).find("SEND fd="), std::string::npos);
  EXPECT_NE(contentOf(egressLog).find("egress discovered = 203.0.113.9"), std::string::npos);

  // Somebody else's link in a directory that everybody can write.
  for (const char* const log : {dataPlaneLog, egressLog}) {
    fs::remove(log);
    fs::create_symlink("/tmp/precious", log);
  }
  std::ofstream("/tmp/precious") << "precious";
  std::this_thread::sleep_for(milliseconds(1000));
  ASSERT_TRUE(echo());
  ASSERT_TRUE(rig->client()->allocate().success());
  EXPECT_EQ(contentOf("/tmp/precious"), "precious");
  EXPECT_TRUE(rig->stops());
}

TEST_F(LogFaultTest, NewLinesFollowOldOnesAndBearTheirTime) {
  std::ofstream(debugLog) << "from before\n";
  const auto rig = Rig::ready();
  expectService(*rig);
  EXPECT_TRUE(rig->stops());
  std::ifstream log(debugLog);
  std::string line;
  std::getline(log, line);
  EXPECT_EQ(line, "from before");
  std::size_t lines = 0;
  while (std::getline(log, line)) {
    ASSERT_GT(line.size(), 25U);
    const std::string stamp = line.substr(0, 25);
    EXPECT_EQ(stamp.find_first_not_of("0123456789-T:.Z "), std::string::npos) << line;
    EXPECT_EQ(stamp[10], 'T');
    EXPECT_EQ(stamp.substr(23), "Z ");
    ++lines;
  }
  // Two for each datagram from the client, one for each to it, and more.
  EXPECT_GT(lines, 60U);
}

}  // namespace
}  // namespace zk::test
