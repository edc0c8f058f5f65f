#include "Platform/LogFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Clock.h"

namespace zk {
namespace {

// Half a second: the coarse clock and the writer's own pace add to it, and the promise is one.
constexpr std::uint64_t lookInterval = 500'000'000;

// `file` appends by itself. pwrite() then appends like write(), whatever the offset says, and does
// without the lock of the file position, for which threads that write at the same time would queue.
void writeText(int file, std::string_view text) {
  // A full disk loses the line. There is nobody to tell.
  [[maybe_unused]] const ssize_t written = pwrite(file, text.data(), text.size(), 0);
}

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

}  // namespace

// Eight octets at a time, without branches; the last eight may overlap those before. Of octets
// below 0x80, those below 0x20 get the high bit by the subtraction, and 0x7F by the addition.
// Carries spread from octets of 0xFF only, and may make it look closer for nothing.
bool holdsControl(std::string_view text) {
  constexpr std::size_t step = sizeof(std::uint64_t);
  constexpr std::uint64_t ones = 0x0101010101010101;
  const auto suspicious = [](const char* at) {
    std::uint64_t octets = 0;
    std::memcpy(&octets, at, step);
    return ((octets - 0x20 * ones) | (octets + ones)) & ~octets & 0x80 * ones;
  };
  if (text.size() >= step) {
    const char* const last = text.data() + text.size() - step;
    std::uint64_t found = suspicious(last);
    for (const char* at = text.data(); at < last; at += step) {
      found |= suspicious(at);
    }
    if (found == 0) {
      return false;
    }
  }
  return std::any_of(text.begin(), text.end(), isControl);
}

void keepOnOneLine(std::span<char> message) {
  if (holdsControl({message.data(), message.size()})) {
    std::replace_if(message.begin(), message.end(), isControl, '?');
  }
}

int openLogFile(const char* path, LogPosition position, LogFileMode mode) {
  const int flags = O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY |
                    (position == LogPosition::append ? O_APPEND : 0);
  // Creating is a second step: in a sticky directory the system may refuse O_CREAT on a file of
  // somebody else's that can be written.
  int file = open(path, flags);
  if (file < 0 && errno == ENOENT) {
    file = open(path, flags | O_CREAT | O_EXCL, mode.bits);
    if (file >= 0 && mode.ignoresUmask) {
      fchmod(file, mode.bits);
    }
    if (file < 0 && errno == EEXIST) {
      file = open(path, flags);  // somebody else was first
    }
  }
  struct stat status {};
  if (file >= 0 && (fstat(file, &status) != 0 || !S_ISREG(status.st_mode))) {
    close(file);
    return -1;
  }
  if (file >= 0 && position == LogPosition::endAtOpening) {
    lseek(file, 0, SEEK_END);
  }
  return file;
}

void appendToFile(const char* path, std::string_view text, LogFileMode mode) {
  const int file = openLogFile(path, LogPosition::append, mode);
  if (file >= 0) {
    writeText(file, text);
    close(file);
  }
}

void KeptLogFile::append(std::string_view text) {
  const std::uint64_t now = coarseMonotonicNanoseconds();
  std::uint64_t due = nextLook_.load(std::memory_order_relaxed);
  if (now >= due && nextLook_.compare_exchange_strong(due, now + lookInterval)) {
    reopenIfReplaced();
  }
  const int file = file_;
  if (file >= 0) {
    writeText(file, text);
  } else {
    appendToFile(path_, text);  // another thread may be about to open it for good
  }
}

// On one thread at a time: whoever moved nextLook_ on has half a second for it.
void KeptLogFile::reopenIfReplaced() {
  const int kept = file_;
  struct stat atPath {};
  struct stat ours {};
  if (kept >= 0 && lstat(path_, &atPath) == 0 && fstat(kept, &ours) == 0 &&
      atPath.st_ino == ours.st_ino && atPath.st_dev == ours.st_dev) {
    return;
  }
  const int opened = openLogFile(path_, LogPosition::append);
  if (kept < 0) {
    file_ = opened;
  } else if (opened >= 0) {
    dup3(opened, kept, O_CLOEXEC);
    close(opened);
  }
}

}  // namespace zk
