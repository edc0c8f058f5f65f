#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "Platform/Descriptor.h"
#include "Platform/Sockets.h"

namespace zk {

/// A program that this one has started, with a pipe to its standard input and one from its standard
/// output; its standard error is ours. It is in a process group of its own, so that Ctrl-C at a
/// terminal is not for it. The pipes are nobody else's: its input ends when this process does,
/// however that comes. One thread at a time, except for awaitEnd().
class Child {
 public:
  /// `arguments[0]` is its path. Its environment is ours and `environment`, which wins; its signals
  /// do what they do by default. Throws std::system_error.
  explicit Child(const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment = {});
  /// Ends its input, and kills it when it has not ended a second later.
  ~Child() { end(SteadyClock::now() + std::chrono::seconds(1)); }

  pid_t pid() const { return pid_; }
  /// Writes to its standard input. Whether all of it was taken.
  bool write(std::string_view text);
  /// The next line of its standard output, without the line feed; absent when none comes until the
  /// deadline.
  std::optional<std::string> readLine(Deadline deadline);
  /// Ends its standard input.
  void closeInput() { input_.reset(); }
  /// Returns when it has closed its standard output, as it does when it ends. Any thread.
  void awaitEnd();
  /// Its status, or the negated number of the signal that ended it; absent when it still runs at
  /// the deadline.
  std::optional<int> waitExit(Deadline deadline);
  /// Ends its input, waits until it has ended, and kills it when the deadline passes first. Its
  /// status likewise.
  int end(Deadline deadline);

 private:
  pid_t pid_ = -1;
  Descriptor input_;
  Descriptor output_;
  std::string buffered_;
  std::optional<int> status_;
};

}  // namespace zk
