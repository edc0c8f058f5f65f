#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace zk::loopback {

/// The running daemon, as its parent process sees it: two pipes and a process number. One thread at
/// a time; cpuTime() and the counters from any.
class DaemonProcess {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Starts `binary` with this process's environment plus `environment`, which wins. The child
  /// starts with default signal dispositions and no blocked signals; its standard error is this
  /// process's. SIGPIPE is ignored in this process from now on, as the daemon may end before its
  /// input is written. Throws std::system_error.
  explicit DaemonProcess(const std::string& binary,
                         const std::map<std::string, std::string>& environment = {});
  /// Kills the daemon when it is still there.
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return pid_; }

  /// Writes to the daemon's standard input. Whether all of it was taken.
  bool write(std::string_view text);
  /// The next line on its standard output, without the line feed. Absent after `timeout`, and when
  /// the output ends before a line feed.
  std::optional<std::string> readLine(Milliseconds timeout);
  /// The port of the ready line, which must come within `timeout`; absent for any other line.
  /// The line itself is in statusLine() afterwards.
  std::optional<std::uint16_t> waitReady(Milliseconds timeout);
  const std::string& statusLine() const { return statusLine_; }

  /// Ends the daemon's standard input.
  void closeInput();
  /// SIGTERM.
  void terminate();
  void sendSignal(int signal);
  /// The exit status, or the negated number of the signal that ended the process; absent when it
  /// still runs after `timeout`.
  std::optional<int> waitExit(Milliseconds timeout);

  /// The entries of /proc/PID/fd and /proc/PID/task; 0 once the process is gone.
  std::size_t descriptorCount() const;
  std::size_t threadCount() const;
  /// VmRSS in KiB; 0 once the process is gone.
  std::size_t residentKilobytes() const;
  /// CPU time that all its threads, ended ones included, have used so far; 0 once it is gone.
  std::chrono::nanoseconds cpuTime() const;

 private:
  pid_t pid_ = -1;
  int input_ = -1;   // our end of its standard input
  int output_ = -1;  // our end of its standard output
  std::string buffered_;
  std::string statusLine_;
  std::optional<int> exitStatus_;
};

}  // namespace zk::loopback
