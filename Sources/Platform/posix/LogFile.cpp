#include "Platform/LogFile.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Clock.h"

namespace zk {
namespace {

using namespace std::chrono_literals;

constexpr mode_t everybody = 0666;
constexpr std::uint64_t lookInterval = 500'000'000;  // nanoseconds; the promise is a second
// A lock is waited for 100 milliseconds, at most once a second.
constexpr auto lockInterval = 5ms;
constexpr int lockTries = 21;
constexpr std::uint64_t patienceInterval = 1'000'000'000;

bool isOurs(int file, struct stat& status) {
  return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
         status.st_nlink == 1;
}

}  // namespace

void LogFile::append(std::string_view lines) {
  look(monotonicNanoseconds());
  while (file_ && !lines.empty()) {
    const ssize_t written = write(file_.get(), lines.data(), lines.size());
    if (written <= 0) {
      if (written < 0 && errno == EINTR) {
        continue;
      }
      return;  // a full disk costs the lines; there is nobody to tell
    }
    size_ += static_cast<std::uint64_t>(written);
    lines.remove_prefix(static_cast<std::size_t>(written));
  }
}

void LogFile::look(std::uint64_t now) {
  if (now >= nextLook_) {
    nextLook_ = now + lookInterval;
    struct stat status {};
    if (!file_ || !isAtPath() || fstat(file_.get(), &status) != 0) {
      open();
    } else {
      size_ = static_cast<std::uint64_t>(status.st_size);  // others append, or truncate, too
    }
  }
  if (file_ && size_ >= maxSize) {
    rotate(now);
  }
}

bool LogFile::isAtPath() const {
  struct stat atPath {};
  struct stat ours {};
  return lstat(path_, &atPath) == 0 && fstat(file_.get(), &ours) == 0 &&
         atPath.st_ino == ours.st_ino && atPath.st_dev == ours.st_dev;
}

void LogFile::open() {
  // Not blocking, or a pipe in the file's place would hold us before it can be refused.
  const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  Descriptor opened(::open(path_, flags));
  if (!opened && errno == ENOENT) {
    opened = Descriptor(::open(path_, flags | O_CREAT | O_EXCL, everybody));
    if (opened && ignoresUmask_) {
      fchmod(opened.get(), everybody);
    }
    if (!opened && errno == EEXIST) {
      opened = Descriptor(::open(path_, flags));  // somebody else was first
    }
  }
  struct stat status {};
  if (opened && !isOurs(opened.get(), status)) {
    opened.reset();
  }
  size_ = static_cast<std::uint64_t>(status.st_size);
  file_ = std::move(opened);
}

// Another process may be about to do the same. Whoever gets the lock checks that the file is still
// the one at the path, so that a new file never replaces the one before.
void LogFile::rotate(std::uint64_t now) {
  const bool isLocked = lock(now);
  if (isAtPath()) {
    const std::string before = std::string(path_) + ".1";
    if (!isLocked || std::rename(path_, before.c_str()) != 0) {
      [[maybe_unused]] const int result = ftruncate(file_.get(), 0);
    }
  }
  open();
}

// Whoever rotates the file holds the lock for a moment only. Anybody who holds it longer has
// something else in mind.
bool LogFile::lock(std::uint64_t now) {
  const auto tries = now >= nextPatience_ ? lockTries : 1;
  for (int i = 0; i < tries; ++i) {
    if (i > 0) {
      std::this_thread::sleep_for(lockInterval);
    }
    if (flock(file_.get(), LOCK_EX | LOCK_NB) == 0) {
      return true;
    }
  }
  nextPatience_ = now + patienceInterval;
  return false;
}

}  // namespace zk
