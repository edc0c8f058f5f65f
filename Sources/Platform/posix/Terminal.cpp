#include "Platform/Terminal.h"

#include <csignal>
#include <string_view>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "Platform/Descriptor.h"

namespace zk {
namespace {

constexpr int ending[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// What a signal handler needs to give the terminal back.
volatile int asking = -1;
termios shown;

extern "C" void giveBackAndEnd(int signal) {
  tcsetattr(asking, TCSAFLUSH, &shown);
  std::signal(signal, SIG_DFL);
  raise(signal);
}

// The terminal shows nothing of what is typed for as long as this lives.
class Unseen {
 public:
  explicit Unseen(int terminal) {
    asking = terminal;
    struct sigaction action {};
    action.sa_handler = giveBackAndEnd;
    for (std::size_t i = 0; i < std::size(ending); ++i) {
      sigaction(ending[i], &action, &before_[i]);
    }
    termios unseen = shown;
    unseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    unseen.c_cc[VSUSP] = _POSIX_VDISABLE;  // a shell would get it without echo
    tcsetattr(terminal, TCSAFLUSH, &unseen);
  }
  ~Unseen() {
    tcsetattr(asking, TCSAFLUSH, &shown);
    for (std::size_t i = 0; i < std::size(ending); ++i) {
      sigaction(ending[i], &before_[i], nullptr);
    }
  }
  Unseen(const Unseen&) = delete;
  Unseen& operator=(const Unseen&) = delete;

 private:
  struct sigaction before_[std::size(ending)]{};
};

void say(int terminal, std::string_view text) {
  [[maybe_unused]] const ssize_t written = write(terminal, text.data(), text.size());
}

}  // namespace

bool isTerminal(int descriptor) {
  return isatty(descriptor) == 1;
}

std::optional<std::string> askSecret(const std::string& prompt) {
  const Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal || tcgetattr(terminal.get(), &shown) != 0) {
    return std::nullopt;
  }
  const Unseen unseen(terminal.get());
  say(terminal.get(), prompt);
  std::string line;
  char piece[256];
  ssize_t got = 0;
  while ((got = read(terminal.get(), piece, sizeof piece)) > 0) {
    line.append(piece, static_cast<std::size_t>(got));
    if (line.back() == '\n') {
      say(terminal.get(), "\n");
      line.pop_back();
      return line;
    }
  }
  return std::nullopt;
}

}  // namespace zk
