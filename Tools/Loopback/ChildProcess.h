#pragma once

#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Platform/Child.h"

namespace zk::loopback {

/// A program that this one has started, with a pipe to its standard input and one from its standard
/// output. It ends with this object, and so does what it has started itself. One thread at a time;
/// the counters from any.
class ChildProcess : public Child {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Environment = std::map<std::string, std::string>;

  /// Starts `arguments[0]`, which is a path, with this process's environment plus `environment`,
  /// which wins; with default signal dispositions and no blocked signals. Its standard error is
  /// this process's, or with `output` both outputs go to that file. SIGPIPE is ignored in this
  /// process from now on, as the child may end before its input is written. Throws
  /// std::system_error.
  explicit ChildProcess(const std::vector<std::string>& arguments,
                        const Environment& environment = {}, const std::string& output = {});
  ~ChildProcess();

  /// The next line on its standard output, without the line feed. Absent after `timeout`, and when
  /// the output ends before a line feed.
  std::optional<std::string> readLine(Milliseconds timeout);
  /// SIGTERM.
  void terminate() { sendSignal(SIGTERM); }
  void sendSignal(int signal);
  /// The exit status, or the negated number of the signal that ended the process; absent when it
  /// still runs after `timeout`.
  std::optional<int> waitExit(Milliseconds timeout);

  /// Its folder in /proc.
  std::filesystem::path proc() const { return "/proc/" + std::to_string(pid()); }
  /// The entries of its folders fd and task; 0 once the process is gone.
  std::size_t descriptorCount() const;
  std::size_t threadCount() const;
  /// Memory, and CPU time that all its threads, ended ones included, have used so far.
  std::size_t residentKilobytes() const;
  std::chrono::nanoseconds cpuTime() const;
};

/// Runs a shell script to its end, with both of its outputs in one. Throws std::runtime_error with
/// what it said when it fails.
std::string runScript(const std::string& script);

/// Where an installed program is, the sbin folders included; empty when it is not.
std::string findProgram(const std::string& name);

/// The path of the program of that name that was built beside this one.
std::string programBeside(const std::string& name);

/// Another path for the file at `path`, by a descriptor: valid in every process while this one
/// lives, even when a mount hides the first one.
std::string pathByDescriptor(const std::string& path);

}  // namespace zk::loopback
