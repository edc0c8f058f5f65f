#pragma once

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "Base/Bytes.h"

namespace zk::test {

// One compiler has macros for it, the other a question.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#elif defined(__has_feature)
inline constexpr bool sanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool sanitized = false;
#endif

/// Octets written as hexadecimal digits; anything else between them is ignored.
inline Bytes hex(std::string_view digits) {
  Bytes bytes;
  int high = -1;
  for (const char c : digits) {
    const auto at = std::string_view("0123456789abcdef").find(static_cast<char>(std::tolower(c)));
    if (at == std::string_view::npos) {
      continue;
    }
    if (high < 0) {
      high = static_cast<int>(at);
    } else {
      bytes.push_back(static_cast<std::uint8_t>(high << 4 | static_cast<int>(at)));
      high = -1;
    }
  }
  return bytes;
}

inline Bytes copyOf(ByteView bytes) {
  return {bytes.begin(), bytes.end()};
}

inline std::string textOf(ByteView bytes) {
  return {bytes.begin(), bytes.end()};
}

/// Looks until `condition` holds or `limit` has passed. Whether it held.
template <typename Condition>
bool eventually(Condition condition, std::chrono::seconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

/// Seconds since it was made.
class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// An environment variable for as long as this lives. Not while other threads run.
class Environment {
 public:
  Environment(const char* name, const std::string& value) : name_(name) {
    ::setenv(name, value.c_str(), 1);
  }
  ~Environment() { ::unsetenv(name_); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  const char* const name_;
};

/// But for the log of the data plane, which is kept open from its first line on, and for pipes, by
/// which a sanitizer talks to its symbolizer.
inline std::ptrdiff_t openDescriptors() {
  std::ptrdiff_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code none;
    const auto target = std::filesystem::read_symlink(entry, none).string();
    const bool isOfInterest = !target.starts_with("/tmp/zkturnd-dp.log") &&
                              !target.starts_with("pipe:") && !target.starts_with("/dev/");
    count += isOfInterest ? 1 : 0;
  }
  return count;
}

}  // namespace zk::test
