#include "Loopback/DaemonProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Sockets.h"

namespace zk::loopback {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  int readEnd;
  int writeEnd;
};

Pipe openPipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) < 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return {ends[0], ends[1]};
}

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& extra) {
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

/// Starts `binary` on those two descriptors. The error number, 0 for none.
int spawn(pid_t& pid, const std::string& binary, std::vector<std::string> environment, int input,
          int output) {
  std::vector<char*> variables;
  variables.reserve(environment.size() + 1);
  for (std::string& entry : environment) {
    variables.push_back(entry.data());
  }
  variables.push_back(nullptr);
  std::string name = binary;
  std::array<char*, 2> arguments{name.data(), nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  const int error =
      posix_spawn(&pid, binary.c_str(), &actions, &attributes, arguments.data(), variables.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

std::size_t countEntries(const std::string& folder) {
  std::size_t count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
       at.increment(error)) {
    ++count;
  }
  return count;
}

}  // namespace

DaemonProcess::DaemonProcess(const std::string& binary,
                             const std::map<std::string, std::string>& environment) {
  std::signal(SIGPIPE, SIG_IGN);
  const Pipe toDaemon = openPipe();
  const Pipe fromDaemon = openPipe();
  input_ = toDaemon.writeEnd;
  output_ = fromDaemon.readEnd;
  const int error =
      spawn(pid_, binary, mergedEnvironment(environment), toDaemon.readEnd, fromDaemon.writeEnd);
  close(toDaemon.readEnd);
  close(fromDaemon.writeEnd);
  if (error != 0) {
    close(input_);
    close(output_);
    throw std::system_error(error, std::generic_category(), binary);
  }
}

DaemonProcess::~DaemonProcess() {
  closeInput();
  close(output_);
  if (!exitStatus_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool DaemonProcess::write(std::string_view text) {
  while (!text.empty()) {
    const auto count = ::write(input_, text.data(), text.size());
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

std::optional<std::string> DaemonProcess::readLine(Milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (const auto end = buffered_.find('\n'); end != std::string::npos) {
      const std::string line = buffered_.substr(0, end);
      buffered_.erase(0, end + 1);
      return line;
    }
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
    if (left <= 0 || pollSocket(output_, POLLIN, static_cast<int>(left)) <= 0) {
      return std::nullopt;
    }
    std::array<char, 4096> chunk;
    const auto count = read(output_, chunk.data(), chunk.size());
    if (count <= 0) {
      return std::nullopt;
    }
    buffered_.append(chunk.data(), static_cast<std::size_t>(count));
  }
}

std::optional<std::uint16_t> DaemonProcess::waitReady(Milliseconds timeout) {
  statusLine_ = readLine(timeout).value_or("");
  const auto status = nlohmann::json::parse(statusLine_, nullptr, false);
  if (!status.is_object() || status.value("status", "") != "ready" || !status.contains("port")) {
    return std::nullopt;
  }
  return status["port"].get<std::uint16_t>();
}

void DaemonProcess::closeInput() {
  if (input_ >= 0) {
    close(input_);
    input_ = -1;
  }
}

void DaemonProcess::terminate() {
  sendSignal(SIGTERM);
}

void DaemonProcess::sendSignal(int signal) {
  if (!exitStatus_) {
    kill(pid_, signal);
  }
}

std::optional<int> DaemonProcess::waitExit(Milliseconds timeout) {
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

std::size_t DaemonProcess::descriptorCount() const {
  return countEntries("/proc/" + std::to_string(pid_) + "/fd");
}

std::size_t DaemonProcess::threadCount() const {
  return countEntries("/proc/" + std::to_string(pid_) + "/task");
}

std::size_t DaemonProcess::residentKilobytes() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string word; status >> word;) {
    if (word == "VmRSS:") {
      std::size_t kilobytes = 0;
      status >> kilobytes;
      return kilobytes;
    }
  }
  return 0;
}

std::chrono::nanoseconds DaemonProcess::cpuTime() const {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &time) != 0) {
    return std::chrono::nanoseconds(0);
  }
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace zk::loopback
