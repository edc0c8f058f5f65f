#include <algorithm>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include "Base/LogLine.h"
#include "Loopback/Scratch.h"
#include "Platform/Descriptor.h"
#include "Platform/LogWriter.h"
#include "Support.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using loopback::contentOf;
using loopback::TemporaryFolder;
namespace fs = std::filesystem;

TEST(LogLine, HoldsNoControlCharactersOfStrangers) {
  const std::pair<const char*, const char*> cases[] = {
      {"plain → \"text\" é", "plain → \"text\" é"},
      {"a\nb\r\t\x1b[2J\x7f", "a?b???[2J?"},
      {"c1 \xC2\x80 \xC2\x9F \xC2\xA0", "c1 ? ? \xC2\xA0"},
      {"\xE2\x80\xAE\xE2\x80\xA8\xE2\x81\xA6\xE2\x80\x8E\xD8\x9C", "?????"},
      {"\xE2\x80\x94 \xE2\x81\xAA \xD8\x9B", "\xE2\x80\x94 \xE2\x81\xAA \xD8\x9B"},
      {"cut \xE2\x80", "cut \xE2\x80"}};
  for (const auto& [text, safe] : cases) {
    std::string line;
    logLine([&](std::string_view its) { line = its; }, FMT_COMPILE("{} {}"), 1,
            std::string_view(text));
    EXPECT_EQ(line, std::string("1 ") + safe);
  }
  logLine(LogCallback(), FMT_COMPILE("{}"), 1);  // nobody listens
}

TEST(LogWriter, HasEveryLineInItsFileSoonAndInOrder) {
  const TemporaryFolder folder;
  const std::string paths[] = {folder.write("a", "before\n"), folder.path() / "b"};
  LogWriter writer("zk.test.log");
  writer.open(paths[0].c_str());
  writer.open(paths[1].c_str());
  double soonest = 9;
  for (std::size_t i = 1; i <= 10; ++i) {
    const test::Stopwatch time;
    writer.append(0, "a\nb", "> ");
    EXPECT_TRUE(test::eventually([&] { return contentOf(paths[0]).size() == 7 + i * 8; }));
    soonest = std::min(soonest, time.seconds());
  }
  EXPECT_LT(soonest, 0.03);

  EXPECT_TRUE(contentOf(paths[0]).starts_with("before\n> a\n> b\n> a\n"));

  std::string wanted[] = {contentOf(paths[0]), ""};
  std::thread threads[2];
  for (std::size_t file = 0; file < 2; ++file) {
    threads[file] = std::thread([&, file] {
      for (int i = 0; i < 20'000; ++i) {
        const std::string line = fmt::format("{} {}", file, i);
        writer.append(file, line);
        wanted[file] += line + '\n';
      }
    });
  }
  for (std::size_t file = 0; file < 2; ++file) {
    threads[file].join();
  }
  EXPECT_TRUE(writer.flush(5s));
  EXPECT_TRUE(contentOf(paths[0]) == wanted[0]);
  EXPECT_TRUE(contentOf(paths[1]) == wanted[1]);
}

// Faster than any disk, as the writer gathers for some milliseconds before it even begins.
TEST(LogWriter, CountsTheLinesForWhichThereIsNoRoom) {
  const TemporaryFolder folder;
  const std::string path = folder.path() / "log";
  constexpr std::size_t fits = LogWriter::maxPending / 512;
  std::string lines;
  for (std::size_t i = 0; i < fits; ++i) {
    lines += (i == 0 ? "" : "\n") + std::string(511, '.');
  }
  {
    LogWriter writer("zk.test.log");
    writer.open(path.c_str());
    writer.append(0, lines);
    writer.append(0, lines + "\none too many");  // whether or not there is something pending
    EXPECT_TRUE(writer.flush(std::chrono::seconds(20)));
    writer.append(0, "the next");
  }  // the end writes what is pending
  std::ifstream all(path);
  std::size_t whole = 0;
  std::size_t lost = 0;
  for (std::string next; std::getline(all, next); ++whole) {
    std::size_t some = 0;
    if (std::sscanf(next.c_str(), "%zu lines LOST: the disk did not keep up", &some) == 1) {
      lost += some;
      --whole;
    }
  }
  EXPECT_EQ(lost, fits + 1);
  EXPECT_EQ(whole, fits + 1);
}

// Two daemons at once: neither loses the other's lines, nor puts a young file in the place of the
// one before.
TEST(LogFile, BeginsAnewAtItsLargestSizeWhoeverElseWrites) {
  const TemporaryFolder folder;
  const std::string path = folder.write("log", "");
  folder.write("log.1", "the one before");
  fs::resize_file(path, LogFile::maxSize - 8);  // takes no disk
  LogFile one(path.c_str(), {});
  LogFile other(path.c_str(), {});
  other.append({});
  one.append("1234567\n");
  other.append("fits\n");  // as far as it knows: it looked before
  one.append("new\n");
  EXPECT_EQ(contentOf(path), "new\n");
  EXPECT_EQ(fs::file_size(path + ".1"), LogFile::maxSize + 5);
  std::this_thread::sleep_for(600ms);
  other.append("other\n");
  one.append("one\n");
  EXPECT_EQ(contentOf(path), "new\nother\none\n");
  EXPECT_EQ(fs::file_size(path + ".1"), LogFile::maxSize + 5);
}

// What others may do in a directory that everybody can write to.
TEST(LogFile, IsCutWhereItCannotBeRenamed) {
  const TemporaryFolder folder;
  const std::string path = folder.write("log", "");
  const std::string before = path + ".1";
  fs::create_directories(before + "/in the way");
  const auto growsAndAppends = [&] {
    LogFile log(path.c_str(), {});
    log.append({});
    fs::resize_file(path, LogFile::maxSize);
    std::this_thread::sleep_for(600ms);
    log.append("first\n");
    log.append("second\n");
    return contentOf(path);
  };
  EXPECT_TRUE(growsAndAppends() == "first\nsecond\n") << "a folder at the new name";
  fs::remove_all(before);
  const Descriptor theirs(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(theirs.get(), LOCK_EX), 0);
  const test::Stopwatch time;
  EXPECT_TRUE(growsAndAppends() == "first\nsecond\n") << "a lock that is never given";
  EXPECT_LT(time.seconds(), 1.5);
  EXPECT_FALSE(fs::exists(before));

  // A second daemon that renames it has the lock for a moment only.
  LogFile log(path.c_str(), {});
  log.append({});
  fs::resize_file(path, LogFile::maxSize);
  std::this_thread::sleep_for(600ms);
  std::thread other([&] {
    std::this_thread::sleep_for(30ms);
    fs::rename(path, before);
    flock(theirs.get(), LOCK_UN);
  });
  log.append("new\n");
  other.join();
  EXPECT_TRUE(contentOf(path) == "new\n");
  EXPECT_EQ(fs::file_size(before), LogFile::maxSize);
}

}  // namespace
}  // namespace zk
