#include <array>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Clock.h"
#include "Support.h"
#include "zkturnd/DebugLog.h"

namespace zk {
namespace {

using test::contentOf;

// The texts of the lines, each of which must bear a time stamp of between `from` and now.
std::vector<std::string> messagesIn(const std::string& content, std::int64_t from) {
  const auto stamp = [](std::int64_t microseconds) {
    std::string text(timestampLength, ' ');
    writeTimestamp(text.data(), microseconds);
    return text;
  };
  const std::string earliest = stamp(from);
  const std::string latest = stamp(wallClockMicroseconds());
  std::vector<std::string> messages;
  std::istringstream lines(content);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(test::beginsLike(line, "####-##-##T##:##:##.###Z ")) << line;
    EXPECT_GE(line.substr(0, timestampLength), earliest);
    EXPECT_LE(line.substr(0, timestampLength), latest);
    messages.push_back(line.substr(timestampLength + 1));
  }
  return messages;
}

TEST(DebugLog, AddsStampedLinesToWhatIsThere) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "log";
  test::writeFile(path, "from before\n");
  const std::int64_t start = wallClockMicroseconds();
  {
    DebugLog log(path.c_str());
    log.appendDebugLog("first → \"line\"");
    log.flush();
    const std::string content = contentOf(path);
    EXPECT_TRUE(content.starts_with("from before\n"));
    EXPECT_EQ(messagesIn(content.substr(12), start), std::vector<std::string>{"first → \"line\""});
    log.appendDebugLog("");
    log.appendDebugLog("third");
  }  // destruction writes what is pending
  EXPECT_EQ(messagesIn(contentOf(path).substr(12), start),
            (std::vector<std::string>{"first → \"line\"", "", "third"}));
}

TEST(DebugLog, KeepsAMessageOnOneLine) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "log";
  const std::int64_t start = wallClockMicroseconds();
  {
    DebugLog log(path.c_str());
    log.appendDebugLog("from evil\nforged\r\x1b[2J:1");
  }
  EXPECT_EQ(messagesIn(contentOf(path), start),
            std::vector<std::string>{"from evil?forged??[2J:1"});
}

TEST(DebugLog, WritesSoonWithoutBeingAsked) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "log";
  DebugLog log(path.c_str());
  EXPECT_TRUE(std::filesystem::exists(path));
  for (int i = 1; i <= 3; ++i) {
    log.appendDebugLog("line");
    const test::Stopwatch time;
    EXPECT_TRUE(test::eventually([&] {
      return contentOf(path).size() == static_cast<std::size_t>(i) * (timestampLength + 6);
    }));
    EXPECT_LT(time.seconds(), 1.0);
  }
}

TEST(DebugLog, StampsTheTimeOfTheCallAndNotOfTheWriting) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "log";
  DebugLog log(path.c_str());
  log.appendDebugLog("x");
  const std::int64_t after = wallClockMicroseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  log.flush();
  std::string latest(timestampLength, ' ');
  writeTimestamp(latest.data(), after);
  EXPECT_LE(contentOf(path).substr(0, timestampLength), latest);
}

TEST(DebugLog, KeepsTheOrderOfEveryThreadAndEveryLine) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "log";
  const std::int64_t start = wallClockMicroseconds();
  constexpr int writers = 4;
  constexpr int lines = 20'000;  // more than may be pending at once
  DebugLog log(path.c_str());
  std::vector<std::thread> threads;
  for (int writer = 0; writer < writers; ++writer) {
    threads.emplace_back([&, writer] {
      for (int i = 0; i < lines; ++i) {
        log.appendDebugLog(std::to_string(writer) + ' ' + std::to_string(i) + std::string(60, '.'));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  log.flush();
  const std::string content = contentOf(path);
  EXPECT_EQ(messagesIn(content.substr(0, content.find('\n') + 1), start).size(), 1U);
  std::array<int, writers> next{};
  std::istringstream all(content);
  for (std::string line; std::getline(all, line);) {
    std::istringstream parts(line.substr(timestampLength));
    std::size_t writer = writers;
    int number = -1;
    parts >> writer >> number;
    ASSERT_LT(writer, next.size()) << line;
    ASSERT_EQ(number, next[writer]++) << line;
  }
  for (const int count : next) {
    EXPECT_EQ(count, lines);
  }
}

TEST(DebugLog, DoesNothingWithoutItsFile) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "missing/log";
  DebugLog log(path.c_str());
  log.appendDebugLog("lost");
  log.flush();
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace zk
