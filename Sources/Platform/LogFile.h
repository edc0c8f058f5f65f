#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/Descriptor.h"

namespace zk {

/// A log file that is appended to, by other processes too. One thread.
///
/// Logs lie in a directory that everybody can write to. So anything but a plain file of this
/// process's user with a single name is refused: somebody else would choose where the lines go, or
/// could hang the caller.
class LogFile {
 public:
  /// At this size a file is renamed to PATH.1, replacing the one before, and a new one is started.
  /// Where that is impossible the file is emptied instead: PATH.1 may belong to another user, and a
  /// lock on the log may be held for ever.
  static constexpr std::uint64_t maxSize = 64 << 20;

  /// Opens nothing yet. `path` must outlive the object. A new file may be read and
  /// written by everybody, within the umask or regardless of it.
  LogFile(const char* path, bool ignoresUmask) : path_(path), ignoresUmask_(ignoresUmask) {}

  /// Appends `lines`, creating the file when there is none. Blocks as long as the disk does. On a
  /// failure the lines are dropped. A log that was removed, renamed or replaced is noticed within a
  /// second.
  void append(std::string_view lines);

 private:
  void look(std::uint64_t now);
  void open();
  void rotate(std::uint64_t now);
  bool lock(std::uint64_t now);
  bool isAtPath() const;

  const char* const path_;
  const bool ignoresUmask_;
  Descriptor file_;
  std::uint64_t size_ = 0;
  std::uint64_t nextLook_ = 0;      // monotonic nanoseconds
  std::uint64_t nextPatience_ = 0;  // likewise: when a lock may be waited for again
};

}  // namespace zk
