#include "Platform/Child.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Clock.h"

// Not every system's headers have it.
extern "C" char** environ;  // NOLINT(readability-redundant-declaration)

namespace zk {
namespace {

void require(int error, const char* what) {
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), what);
  }
}

// What posix_spawn() does in the child: these are its standard input and output, signals do what
// they do by default, and its process group is its own.
struct Setting {
  Setting(int input, int output) {
    require(posix_spawn_file_actions_init(&actions), "posix_spawn");
    require(posix_spawnattr_init(&attributes), "posix_spawn");
    require(posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO), "posix_spawn");
    require(posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO), "posix_spawn");
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  }
  ~Setting() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;

  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};
};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& more) {
  std::vector<std::string> entries;
  for (const auto& [name, value] : more) {
    entries.push_back(name);
    entries.back().append("=").append(value);
  }
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!more.contains(text.substr(0, text.find('=')))) {
      entries.push_back(text);
    }
  }
  return entries;
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments,
             const std::map<std::string, std::string>& environment) {
  Pipe input = openPipe();
  Pipe output = openPipe();
  std::signal(SIGPIPE, SIG_IGN);  // it may end before its input is written
  const Setting setting(input.reader.get(), output.writer.get());
  std::vector<std::string> texts = arguments;
  std::vector<std::string> entries = environmentWith(environment);
  require(posix_spawn(&pid_, arguments.front().c_str(), &setting.actions, &setting.attributes,
                      pointersTo(texts).data(), pointersTo(entries).data()),
          arguments.front().c_str());
  input_ = std::move(input.writer);
  output_ = std::move(output.reader);
}

bool Child::write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(input_.get(), text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  }
  return true;
}

std::optional<std::string> Child::readLine(Deadline deadline) {
  std::size_t end = 0;
  while ((end = buffered_.find('\n')) == std::string::npos) {
    char piece[1024];
    if (waitFor(output_.get(), POLLIN, deadline) != Wait::ready) {
      return std::nullopt;
    }
    const ssize_t got = read(output_.get(), piece, sizeof piece);
    if (got == 0 || (got < 0 && errno != EINTR)) {
      return std::nullopt;
    }
    buffered_.append(piece, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  }
  std::string line = buffered_.substr(0, end);
  buffered_.erase(0, end + 1);
  return line;
}

void Child::awaitEnd() {
  char discarded[256];
  ssize_t got = 0;
  do {
    got = read(output_.get(), discarded, sizeof discarded);
  } while (got > 0 || (got < 0 && errno == EINTR));
}

std::optional<int> Child::waitExit(Deadline deadline) {
  int status = 0;
  while (!status_) {
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    } else if (SteadyClock::now() >= deadline) {
      return std::nullopt;
    } else {
      waitFor(-1, 0, SteadyClock::now() + std::chrono::milliseconds(2));
    }
  }
  return status_;
}

int Child::end(Deadline deadline) {
  closeInput();
  char discarded[256];
  while (!status_ && waitFor(output_.get(), POLLIN, deadline) == Wait::ready &&
         read(output_.get(), discarded, sizeof discarded) > 0) {
  }
  // Its output has ended, and so will it, at once; or it hangs.
  if (!waitExit(deadline)) {
    kill(pid_, SIGKILL);
    waitExit(Deadline::max());
  }
  return *status_;
}

}  // namespace zk
