#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace zk {

/// Whether a freshly opened log file appends by itself or writes on from where its end was.
enum class LogPosition { append, endAtOpening };

/// Puts "?" in the place of control characters, so that one message stays one line. Messages hold
/// texts of strangers: a proxy names peers by octets of its choice, and must not write our logs.
void keepOnOneLine(std::span<char> message);

/// Whether keepOnOneLine() would change `text`.
bool holdsControl(std::string_view text);

/// Permission bits of a log file that is created: the default for new files, or bits that hold
/// whatever the umask says.
struct LogFileMode {
  mode_t bits = 0666;
  bool ignoresUmask = false;
};

/// Opens a log file for writing, creating it when there is none. -1 when that fails. Log paths lie
/// in a directory that everybody can write: a link, a pipe or a device in the file's place is
/// refused, as it would send the lines, or hang the caller, where somebody else chose.
int openLogFile(const char* path, LogPosition position, LogFileMode mode = {});

/// Opens `path`, writes `text` at its end in one write, and closes it. Failures drop the text.
void appendToFile(const char* path, std::string_view text, LogFileMode mode = {});

/// A log file whose descriptor is kept between lines, since opening and closing it would cost
/// several times the line itself. That the path names another file by now (the log was removed,
/// renamed or replaced) is noticed within a second. Any thread.
class KeptLogFile {
 public:
  explicit KeptLogFile(const char* path) : path_(path) {}

  /// Appends `text` in one write; it is in the file on return. Failures drop the text.
  void append(std::string_view text);

 private:
  void reopenIfReplaced();

  const char* const path_;
  // Once there is a descriptor its number never changes: a new file is dup'ed over it, so that
  // writers need no lock.
  std::atomic<int> file_{-1};
  std::atomic<std::uint64_t> nextLook_{0};  // coarse monotonic nanoseconds
};

}  // namespace zk
