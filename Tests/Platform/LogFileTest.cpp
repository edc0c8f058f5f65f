#include <barrier>
#include <csignal>
#include <functional>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/LogFile.h"
#include "Support.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using test::contentOf;
namespace fs = std::filesystem;

TEST(KeepOnOneLine, ReplacesControlCharactersWhereverTheyStandAndNothingElse) {
  for (std::size_t length = 1; length < 40; ++length) {
    for (std::size_t at = 0; at < length; ++at) {
      for (int value = 0; value < 256; ++value) {
        std::string text(length, '\xFF');
        text[at] = static_cast<char>(value);
        std::string expected = text;
        if (value < 0x20 || value == 0x7F) {
          expected[at] = '?';
        }
        keepOnOneLine(text);
        ASSERT_EQ(text, expected) << value << " at " << at << " of " << length;
      }
    }
  }
}

TEST(OpenLogFile, RefusesWhateverIsNoRegularFileWithoutWaiting) {
  const test::TemporaryFolder folder;
  test::writeFile(folder / "victim", "untouched");
  fs::create_symlink(folder / "victim", folder / "link");
  fs::create_symlink(folder / "nowhere", folder / "dangling");
  fs::create_directory(folder / "folder");
  mkfifo((folder / "fifo").c_str(), 0666);
  mkfifo((folder / "read fifo").c_str(), 0666);
  const int reader = open((folder / "read fifo").c_str(), O_RDONLY | O_NONBLOCK);
  const auto descriptors = test::openDescriptors();
  for (const std::string& path : {folder / "link", folder / "dangling", folder / "folder",
                                  folder / "fifo", folder / "read fifo", folder / "none/file",
                                  std::string("/dev/full"), std::string("/dev/tty")}) {
    for (const LogPosition position : {LogPosition::append, LogPosition::endAtOpening}) {
      EXPECT_EQ(openLogFile(path.c_str(), position), -1) << path;
      appendToFile(path.c_str(), "line\n");
    }
  }
  EXPECT_EQ(test::openDescriptors(), descriptors);
  EXPECT_EQ(contentOf(folder / "victim"), "untouched");
  EXPECT_FALSE(fs::exists(folder / "nowhere"));
  char octet = 0;
  EXPECT_EQ(read(reader, &octet, 1), 0);
  close(reader);
}

TEST(OpenLogFile, AddsToWhatIsThereAndCreatesWithTheModeAskedFor) {
  const test::TemporaryFolder folder;
  const mode_t mask = umask(027);
  appendToFile((folder / "usual").c_str(), "1\n");
  appendToFile((folder / "open").c_str(), "1\n", {.bits = 0666, .ignoresUmask = true});
  umask(mask);
  const auto modeOf = [&](const char* name) {
    struct stat status {};
    stat((folder / name).c_str(), &status);
    return status.st_mode & 0777;
  };
  EXPECT_EQ(modeOf("usual"), 0640U);
  EXPECT_EQ(modeOf("open"), 0666U);

  const std::string path = folder / "usual";
  for (const LogPosition position : {LogPosition::append, LogPosition::endAtOpening}) {
    const int file = openLogFile(path.c_str(), position);
    ASSERT_GE(file, 0);
    EXPECT_NE(fcntl(file, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(write(file, "2\n", 2), 2);
    // Somebody else's line in between: appending goes behind it, a position of its own over it.
    appendToFile(path.c_str(), "3\n");
    EXPECT_EQ(write(file, "4\n", 2), 2);
    close(file);
  }
  EXPECT_EQ(contentOf(path), "1\n2\n3\n4\n2\n4\n");
}

// Appends until `seen` holds; how long that took.
double secondsUntil(KeptLogFile& log, const std::function<bool()>& seen) {
  const test::Stopwatch time;
  while (!seen() && time.seconds() < 3) {
    log.append("again\n");
    std::this_thread::sleep_for(10ms);
  }
  return time.seconds();
}

class KeptLog : public testing::Test {
 protected:
  KeptLog() { log_.append("first\n"); }
  const test::TemporaryFolder folder_;
  const std::string path_ = folder_ / "log";
  KeptLogFile log_{path_.c_str()};
};

TEST_F(KeptLog, HasEachLineInTheFileOnReturn) {
  EXPECT_EQ(contentOf(path_), "first\n");
  const auto descriptors = test::openDescriptors();
  log_.append("second\n");
  EXPECT_EQ(contentOf(path_), "first\nsecond\n");
  EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST_F(KeptLog, NoticesWithinASecondThatTheFileWasRemoved) {
  const auto descriptors = test::openDescriptors();
  fs::remove(path_);
  EXPECT_LT(secondsUntil(log_, [&] { return fs::exists(path_); }), 1.0);
  log_.append("last\n");
  EXPECT_TRUE(contentOf(path_).ends_with("again\nlast\n"));
  EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST_F(KeptLog, NoticesWithinASecondThatTheFileWasRenamedOrReplaced) {
  fs::rename(path_, folder_ / "log.1");
  test::writeFile(path_, "new: ");
  EXPECT_LT(secondsUntil(log_, [&] { return contentOf(path_) != "new: "; }), 1.0);
  EXPECT_TRUE(contentOf(path_).starts_with("new: again\n"));
  EXPECT_TRUE(contentOf(folder_ / "log.1").starts_with("first\nagain\n"));
}

TEST_F(KeptLog, NeitherFollowsALinkNorHangsOnAPipeInTheFilesPlace) {
  test::writeFile(folder_ / "victim", "");
  const test::Stopwatch time;
  fs::remove(path_);
  fs::create_symlink(folder_ / "victim", path_);
  for (; time.seconds() < 0.7; std::this_thread::sleep_for(10ms)) {
    log_.append("lost\n");
  }
  EXPECT_EQ(contentOf(folder_ / "victim"), "");
  fs::remove(path_);
  mkfifo(path_.c_str(), 0666);
  for (; time.seconds() < 1.4; std::this_thread::sleep_for(10ms)) {
    log_.append("lost\n");
  }
  EXPECT_LT(time.seconds(), 2.0);
  fs::remove(path_);
  EXPECT_LT(secondsUntil(log_, [&] { return contentOf(path_).starts_with("again\n"); }), 1.0);
}

TEST_F(KeptLog, OutlivesAFullDisk) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full{6, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  log_.append("lost\n");
  setrlimit(RLIMIT_FSIZE, &before);
  log_.append("kept\n");
  EXPECT_EQ(contentOf(path_), "first\nkept\n");
}

TEST(KeptLogFile, StartsOnceTheFileCanBeOpened) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "later/log";
  KeptLogFile log(path.c_str());
  log.append("lost\n");
  fs::create_directory(folder / "later");
  EXPECT_LT(secondsUntil(log, [&] { return fs::exists(path); }), 1.0);
  log.append("line\n");
  EXPECT_TRUE(contentOf(path).ends_with("again\nline\n"));
}

TEST(KeptLogFile, LosesNoLineOfThreadsThatStartTogether) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "log";
  constexpr std::size_t rounds = 200;
  constexpr std::size_t writers = 4;
  for (std::size_t round = 0; round < rounds; ++round) {
    KeptLogFile log(path.c_str());
    std::barrier start(writers);
    std::vector<std::thread> threads;
    for (std::size_t writer = 0; writer < writers; ++writer) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        log.append("line\n");
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
  EXPECT_EQ(contentOf(path).size(), rounds * writers * 5);
}

TEST(KeptLogFile, LosesAndMixesNoLineOfManyThreadsWhileTheFileIsReplaced) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "log";
  KeptLogFile log(path.c_str());
  constexpr int writers = 4;
  constexpr int lines = 300;
  std::vector<std::thread> threads;
  for (int writer = 0; writer < writers; ++writer) {
    threads.emplace_back([&, writer] {
      const std::string line(100, static_cast<char>('a' + writer));
      for (int i = 0; i < lines; ++i) {
        log.append(line + "\n");
        std::this_thread::sleep_for(2ms);
      }
    });
  }
  std::this_thread::sleep_for(100ms);
  fs::rename(path, folder / "log.1");
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(contentOf(path).empty());
  std::size_t whole = 0;
  std::istringstream all(contentOf(folder / "log.1") + contentOf(path));
  for (std::string line; std::getline(all, line); ++whole) {
    EXPECT_EQ(line, std::string(100, line[0]));
  }
  EXPECT_EQ(whole, std::size_t{writers} * lines);
}

}  // namespace
}  // namespace zk
