#include "ChildProcess.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace zk::bench {
namespace {

std::vector<pid_t> childrenOf(pid_t pid) {
  std::vector<pid_t> found;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  std::error_code gone;
  for (const auto& task : std::filesystem::directory_iterator(tasks, gone)) {
    std::ifstream list(task.path() / "children");
    for (pid_t child = 0; list >> child;) {
      found.push_back(child);
    }
  }
  return found;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> argv, bool keepOutput) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  std::vector<char*> arguments;
  for (std::string& argument : argv) {
    arguments.push_back(argument.data());
  }
  arguments.push_back(nullptr);
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    dup2(nowhere, STDIN_FILENO);
    dup2(keepOutput ? ends[1] : nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  close(nowhere);
  close(ends[1]);
  output_ = ends[0];
  if (pid_ < 0) {
    throw std::runtime_error("cannot start " + argv[0]);
  }
}

ChildProcess::~ChildProcess() {
  // Its own process group: some servers serve with children.
  kill(-pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  close(output_);
}

std::string ChildProcess::readLine() {
  std::string line;
  char c = 0;
  while (read(output_, &c, 1) == 1 && c != '\n') {
    line += c;
  }
  return line;
}

std::chrono::nanoseconds cpuTimeWithChildren(pid_t pid) {
  std::chrono::nanoseconds total{0};
  clockid_t clock = 0;
  timespec used{};
  if (clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &used) == 0) {
    total += std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
  }
  for (const pid_t child : childrenOf(pid)) {
    total += cpuTimeWithChildren(child);
  }
  return total;
}

std::size_t residentWithChildren(pid_t pid) {
  std::size_t total = 0;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      std::istringstream(line.substr(6)) >> total;
    }
  }
  for (const pid_t child : childrenOf(pid)) {
    total += residentWithChildren(child);
  }
  return total;
}

std::string findProgram(const std::string& name) {
  const char* const path = getenv("PATH");
  std::istringstream folders(std::string(path == nullptr ? "" : path) + ":/usr/sbin:/sbin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string candidate = folder + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return {};
}

}  // namespace zk::bench
