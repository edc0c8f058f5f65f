#include "Loopback/ChildProcess.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "Loopback/KitSocket.h"
#include "Platform/Sockets.h"

namespace zk::loopback {
namespace {

namespace fs = std::filesystem;
using Milliseconds = ChildProcess::Milliseconds;
using Clock = SteadyClock;

std::size_t countEntries(const fs::path& folder) {
  std::error_code gone;
  std::size_t count = 0;
  for (fs::directory_iterator at(folder, gone), end; !gone && at != end; at.increment(gone)) {
    ++count;
  }
  return count;
}

// The same command, with both of its outputs in a file where one is named.
std::vector<std::string> writingTo(const std::string& file, std::vector<std::string> arguments) {
  if (!file.empty()) {
    arguments.insert(arguments.begin(), {"/bin/sh", "-c", "exec \"$@\" >>\"$0\" 2>&1", file});
  }
  return arguments;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const Environment& environment, const std::string& output)
    : Child(writingTo(output, arguments), environment) {}

// Some servers serve with children.
ChildProcess::~ChildProcess() {
  kill(-pid(), SIGKILL);
}

std::optional<std::string> ChildProcess::readLine(Milliseconds timeout) {
  return Child::readLine(Clock::now() + timeout);
}

void ChildProcess::sendSignal(int signal) {
  if (!waitExit({})) {
    kill(pid(), signal);
  }
}

std::optional<int> ChildProcess::waitExit(Milliseconds timeout) {
  return Child::waitExit(Clock::now() + timeout);
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
  if (clock_getcpuclockid(pid(), &clock) != 0 || clock_gettime(clock, &used) != 0) {
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
