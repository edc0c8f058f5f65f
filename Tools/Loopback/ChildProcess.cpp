#include "Loopback/ChildProcess.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Loopback/KitSocket.h"
#include "Platform/Sockets.h"

namespace zk::loopback {
namespace {

namespace fs = std::filesystem;
using Milliseconds = ChildProcess::Milliseconds;
using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

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

std::string procOf(pid_t pid, const char* what) {
  return "/proc/" + std::to_string(pid) + "/" + what;
}

std::size_t countEntries(const std::string& folder) {
  std::error_code gone;
  std::size_t count = 0;
  for (fs::directory_iterator at(folder, gone), end; !gone && at != end; at.increment(gone)) {
    ++count;
  }
  return count;
}

/// A process, its children, and theirs.
std::vector<pid_t> familyOf(pid_t pid) {
  std::vector<pid_t> found{pid};
  for (std::size_t i = 0; i < found.size(); ++i) {
    std::error_code gone;
    for (const auto& task : fs::directory_iterator(procOf(found[i], "task"), gone)) {
      std::ifstream list(task.path() / "children");
      for (pid_t child = 0; list >> child;) {
        found.push_back(child);
      }
    }
  }
  return found;
}

/// The number behind `name` in a status file of /proc; 0 without one.
std::size_t numberIn(const fs::path& status, const std::string& name) {
  std::ifstream file(status);
  std::size_t number = 0;
  for (std::string word; file >> word;) {
    if (word == name) {
      file >> number;
      break;
    }
  }
  return number;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments, const Environment& environment,
                           const std::string& output) {
  std::signal(SIGPIPE, SIG_IGN);
  // Nothing is allocated between fork() and exec(): other threads may hold the heap's lock.
  std::vector<std::string> merged = mergedEnvironment(environment);
  const auto variables = pointersTo(merged);
  const auto argv = pointersTo(arguments);
  Pipe toChild = openPipe();
  Pipe fromChild = openPipe();
  Pipe failure = openPipe();  // closed by a successful exec()
  const Descriptor log(
      output.empty()
          ? -1
          : open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR));
  pid_ = fork();
  if (pid_ == 0) {
    setpgid(0, 0);
    for (int signal = 1; signal < NSIG; ++signal) {
      std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(toChild.reader.get(), STDIN_FILENO);
    dup2(log ? log.get() : fromChild.writer.get(), STDOUT_FILENO);
    dup2(log ? log.get() : STDERR_FILENO, STDERR_FILENO);
    execve(argv[0], argv.data(), variables.data());
    const int error = errno;
    [[maybe_unused]] const auto told = ::write(failure.writer.get(), &error, sizeof error);
    _exit(127);
  }
  int error = pid_ < 0 ? errno : 0;
  failure.writer.reset();
  fromChild.writer.reset();
  if (pid_ > 0 && read(failure.reader.get(), &error, sizeof error) > 0) {
    waitpid(pid_, nullptr, 0);
  }
  if (error != 0) {
    errno = error;
    fail(arguments[0]);
  }
  input_ = std::move(toChild.writer);
  output_ = std::move(fromChild.reader);
}

ChildProcess::~ChildProcess() {
  closeInput();
  output_.reset();
  // Its own process group: some servers serve with children.
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
  return countEntries(procOf(pid_, "fd"));
}

std::size_t ChildProcess::threadCount() const {
  return countEntries(procOf(pid_, "task"));
}

std::size_t ChildProcess::residentKilobytes() const {
  std::size_t total = 0;
  for (const pid_t pid : familyOf(pid_)) {
    total += numberIn(procOf(pid, "status"), "VmRSS:");
  }
  return total;
}

std::chrono::nanoseconds ChildProcess::cpuTime() const {
  std::chrono::nanoseconds total{0};
  for (const pid_t pid : familyOf(pid_)) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &used) == 0) {
      total += std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    }
  }
  return total;
}

std::size_t ChildProcess::wakeUps() const {
  std::size_t total = 0;
  for (const pid_t pid : familyOf(pid_)) {
    std::error_code gone;
    for (const auto& task : fs::directory_iterator(procOf(pid, "task"), gone)) {
      total += numberIn(task.path() / "status", "voluntary_ctxt_switches:");
    }
  }
  return total;
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
    throw std::runtime_error("cannot: " + script + "\n" + said);
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
    fail(path);
  }
  return procOf(getpid(), "fd/") + std::to_string(file);
}

}  // namespace zk::loopback
