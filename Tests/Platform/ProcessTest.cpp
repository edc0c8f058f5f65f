#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Process.h"
#include "Platform/Sockets.h"

namespace zk {
namespace {

using namespace std::chrono_literals;

// As a parent may do it: the pipe does not block, and holds less than the text.
TEST(Process, WritesItsOutputWholeIntoAPipeThatTakesItInPieces) {
  const std::string text(300'000, 'x');
  Pipe pipe = openPipe();
  fcntl(pipe.writer.get(), F_SETFL, O_NONBLOCK);
  std::string got;
  std::thread reader([&] {
    char piece[4096];
    for (ssize_t count = 1; count > 0;) {
      std::this_thread::sleep_for(100us);
      count = read(pipe.reader.get(), piece, sizeof piece);
      got.append(piece, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
  });
  const Descriptor before(dup(STDOUT_FILENO));
  dup2(pipe.writer.get(), STDOUT_FILENO);
  pipe.writer.reset();
  writeOutput(text);
  dup2(before.get(), STDOUT_FILENO);
  reader.join();
  EXPECT_TRUE(got == text) << got.size();
}

// Where poll() fails, here for a limit of no descriptors, a daemon is not told to stop.
TEST(Process, WaitsForTheWordToStopWhateverTheSystemHasRunOutOf) {
  Pipe pipe = openPipe();
  const pid_t child = fork();
  if (child == 0) {
    takeTerminationSignal();
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    pipe.writer.reset();
    awaitStop();
    _exit(0);
  }
  pipe.writer.reset();
  char octet = 0;
  EXPECT_EQ(read(pipe.reader.get(), &octet, 1), 0);
  std::this_thread::sleep_for(50ms);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "it did not wait";
  kill(child, SIGTERM);
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zk
