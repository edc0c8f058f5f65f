// A terminal, a shell on it, and what people type.

#include <csignal>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>

#include "Seal/SealLab.h"

namespace zk::lab {
namespace {

// A shell with jobs on a terminal of its own, which somebody types into.
class Terminal {
 public:
  explicit Terminal(const std::vector<std::string>& command) {
    pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      std::vector<char*> arguments;
      for (const std::string& each : command) {
        arguments.push_back(const_cast<char*>(each.c_str()));
      }
      arguments.push_back(nullptr);
      execv(arguments[0], arguments.data());
      _exit(127);
    }
    fcntl(master_, F_SETFL, O_NONBLOCK);
  }
  ~Terminal() {
    close(master_);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  void type(const std::string& text) {
    EXPECT_EQ(write(master_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // Waits until it shows that, once more than what was waited for before.
  bool shows(const std::string& text) {
    return eventually([&] {
      char read[4096];
      for (ssize_t size = 0; (size = ::read(master_, read, sizeof read)) > 0;) {
        screen_.append(read, static_cast<std::size_t>(size));
      }
      const auto at = screen_.find(text);
      if (at != std::string::npos) {
        screen_.erase(0, at + text.size());
      }
      return at != std::string::npos;
    });
  }
  const std::string& screen() const { return screen_; }

 private:
  int master_ = -1;
  pid_t pid_ = -1;
  std::string screen_;
};

TEST_F(SealTest, JobsWorkAsWithoutIt) {
  for (const std::string& seal : {std::string(), sealed + " "}) {
    SCOPED_TRACE(seal);
    std::unique_ptr<Terminal> shell;
    NetworkLab::in("home", [&] {
      shell = std::make_unique<Terminal>(asNobody({"/bin/bash", "--norc", "-i"}));
    });
    shell->type("PS1='> '\n");
    // A shell ignores Ctrl-C when what it waits for has just ended by itself, so this does not.
    shell->type(seal + "bash -c 'echo beg\"\"un; sleep 60; echo end\"\"ed'\n");
    ASSERT_TRUE(shell->shows("begun")) << shell->screen();
    shell->type("\x1a");
    ASSERT_TRUE(shell->shows("[1]+  Stopped")) << shell->screen();
    shell->type("fg\n");
    ASSERT_TRUE(shell->shows("echo end")) << shell->screen();
    std::this_thread::sleep_for(milliseconds(300));
    shell->type("\x03");
    shell->type("echo status=$?\n");
    EXPECT_TRUE(shell->shows("status=130\r")) << shell->screen();
    // A command that reads from the terminal and ends by itself.
    shell->type(seal + "bash -c 'echo re\"\"ads; cat'\n");
    ASSERT_TRUE(shell->shows("reads")) << shell->screen();
    shell->type("hello\n\x04");
    EXPECT_TRUE(shell->shows("hello\r\nhello")) << shell->screen();
    shell->type("echo status=$?\n");
    EXPECT_TRUE(shell->shows("status=0\r")) << shell->screen();
  }
}

}  // namespace
}  // namespace zk::lab
