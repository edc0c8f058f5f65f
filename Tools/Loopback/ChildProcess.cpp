#include "Loopback/ChildProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Loopback/KitSocket.h"
#include "Platform/Sockets.h"

namespace zk::loopback {
namespace {

namespace fs = std::filesystem;
using Milliseconds = ChildProcess::Milliseconds;
using Clock = std::chrono::steady_clock;

std::vector<std::string> mergedEnvironment(const ChildProcess::Environment& extra) {
  std::vector<std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!extra.contains(text.substr(0, text.find('=')))) {
      merged.push_back(text);
    }
  }
  for (const auto& [name, value] : extra) {
    merged.push_back(std::string(name).append("=").append(value));
  }
  return merged;
}

/// The same as exec() takes it; valid as long as `texts`.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

std::size_t countEntries(const fs::path& folder) {
  std::error_code gone;
  std::size_t count = 0;
  for (fs::directory_iterator at(folder, gone), end; !gone && at != end; at.increment(gone)) {
    ++count;
  }
  return count;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments, const Environment& environment,
                           const std::string& output) {
  std::signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> merged = mergedEnvironment(environment);
  Pipe toChild = openPipe();
  Pipe fromChild = openPipe();
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, toChild.reader.get(), STDIN_FILENO);
  if (output.empty()) {
    posix_spawn_file_actions_adddup2(&files, fromChild.writer.get(), STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, S_IRUSR | S_IWUSR);
    posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
  }
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_t how;
  posix_spawnattr_init(&how);
  // Its own process group: some servers serve with children.
  posix_spawnattr_setflags(&how,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setsigdefault(&how, &all);
  posix_spawnattr_setsigmask(&how, &none);
  const int error = posix_spawn(&pid_, arguments[0].c_str(), &files, &how,
                                pointersTo(arguments).data(), pointersTo(merged).data());
  posix_spawnattr_destroy(&how);
  posix_spawn_file_actions_destroy(&files);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), arguments[0]);
  }
  input_ = std::move(toChild.writer);
  output_ = std::move(fromChild.reader);
}

ChildProcess::~ChildProcess() {
  closeInput();
  output_.reset();
  kill(-pid_, SIGKILL);
  if (!exitStatus_) {
    waitpid(pid_, nullptr, 0);
  }
}

bool ChildProcess::write(std::string_view text) {
  while (!text.empty()) {
    const auto count = ::write(input_.get(), text.data(), text.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

std::optional<std::string> ChildProcess::readLine(Milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (const auto end = buffered_.find('\n'); end != std::string::npos) {
      const std::string line = buffered_.substr(0, end);
      buffered_.erase(0, end + 1);
      return line;
    }
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
    if (left <= 0 || !waitReadable(output_.get(), Milliseconds(left))) {
      return std::nullopt;
    }
    std::array<char, 4096> chunk;
    const auto count = read(output_.get(), chunk.data(), chunk.size());
    if (count <= 0) {
      return std::nullopt;
    }
    buffered_.append(chunk.data(), static_cast<std::size_t>(count));
  }
}

void ChildProcess::sendSignal(int signal) {
  if (!exitStatus_) {
    kill(pid_, signal);
  }
}

std::optional<int> ChildProcess::waitExit(Milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!exitStatus_) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    } else if (Clock::now() >= deadline) {
      return std::nullopt;
    } else {
      std::this_thread::sleep_for(Milliseconds(2));
    }
  }
  return exitStatus_;
}

std::size_t ChildProcess::descriptorCount() const {
  return countEntries(proc() / "fd");
}

std::size_t ChildProcess::threadCount() const {
  return countEntries(proc() / "task");
}

std::size_t ChildProcess::residentKilobytes() const {
  std::ifstream pages(proc() / "statm");
  std::size_t all = 0;
  std::size_t resident = 0;
  pages >> all >> resident;
  return resident * static_cast<std::size_t>(getpagesize()) / 1024;
}

std::chrono::nanoseconds ChildProcess::cpuTime() const {
  clockid_t clock{};
  timespec used{};
  if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &used) != 0) {
    return {};
  }
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

std::string runScript(const std::string& script) {
  ChildProcess shell({"/bin/bash", "-c", "exec 2>&1\n" + script});
  shell.closeInput();
  std::string said;
  // Its output may stay open behind its end, in what it has started.
  for (bool ended = false;;) {
    if (const auto line = shell.readLine(Milliseconds(ended ? 1 : 20))) {
      said += *line + '\n';
    } else if (ended) {
      break;
    } else {
      ended = shell.waitExit(Milliseconds(20)).has_value();
    }
  }
  if (shell.waitExit({}) != 0) {
    throw std::runtime_error(
        "failed: " + said +
        script.substr(script.size() - std::min<std::size_t>(script.size(), 200)));
  }
  return said;
}

std::string findProgram(const std::string& name) {
  for (const char* const folder :
       {"/usr/local/sbin/", "/usr/local/bin/", "/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
    if (access((folder + name).c_str(), X_OK) == 0) {
      return folder + name;
    }
  }
  return {};
}

std::string programBeside(const std::string& name) {
  return fs::read_symlink("/proc/self/exe").replace_filename(name);
}

std::string pathByDescriptor(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file);
}

}  // namespace zk::loopback
