#pragma once

#include <cstdint>
#include <string_view>

#include <sys/types.h>

#include "Platform/Descriptor.h"

namespace zk {

/// Permission bits of a log file that is created: the default for new files, or bits that hold
/// whatever the umask says.
struct LogFileMode {
  mode_t bits = 0666;
  bool ignoresUmask = false;
};

/// A log file that is appended to, by other processes too. One thread.
///
/// Log paths lie in a directory that everybody can write. So what is not a plain file of this
/// process's user, with one name, is refused: it would send the lines, or hang the caller, where
/// somebody else chose.
class LogFile {
 public:
  /// At this size a file is renamed to PATH.1, in the place of the one before, and begun anew.
  /// Where somebody keeps that from happening it is cut: PATH.1 may be another user's, and a lock
  /// on the log may be held for ever.
  static constexpr std::uint64_t maxSize = 64 << 20;

  /// Opens nothing yet. `path` must outlive the object.
  LogFile(const char* path, LogFileMode mode) : path_(path), mode_(mode) {}

  /// Appends `lines`, creating the file when there is none. Blocks while the disk does. Failures
  /// drop the lines. That the path names another file by now (the log was removed, renamed or
  /// replaced) is noticed within a second.
  void append(std::string_view lines);

 private:
  void look(std::uint64_t now);
  void open();
  void rotate(std::uint64_t now);
  bool lock(std::uint64_t now);
  bool isAtPath() const;

  const char* const path_;
  const LogFileMode mode_;
  Descriptor file_;
  std::uint64_t size_ = 0;
  std::uint64_t nextLook_ = 0;      // monotonic nanoseconds
  std::uint64_t nextPatience_ = 0;  // likewise: when a lock may be waited for again
};

}  // namespace zk
