#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zk::bench {

/// A program that runs beside the benchmark and ends with it.
class ChildProcess {
 public:
  /// `argv[0]` is looked for along PATH. Its standard error goes nowhere; its standard output too,
  /// unless `keepOutput`. Throws std::runtime_error.
  explicit ChildProcess(std::vector<std::string> argv, bool keepOutput = false);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// The next line of its output, with `keepOutput`; empty at its end.
  std::string readLine();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};

/// CPU time of all threads of a process and of its children that are still there, from the kernel's
/// accounting.
std::chrono::nanoseconds cpuTimeWithChildren(pid_t pid);

/// VmRSS in KiB of a process and its children.
std::size_t residentWithChildren(pid_t pid);

/// Where a program is along PATH and the sbin folders; empty when it is not installed.
std::string findProgram(const std::string& name);

}  // namespace zk::bench
