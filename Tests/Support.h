#pragma once

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/Bytes.h"

namespace zk::test {

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

/// Whether `text` begins like `shape`, in which # stands for a digit and all else for itself.
inline bool beginsLike(std::string_view text, std::string_view shape) {
  return text.size() >= shape.size() &&
         std::equal(shape.begin(), shape.end(), text.begin(), [](char wanted, char found) {
           return wanted == '#' ? found >= '0' && found <= '9' : found == wanted;
         });
}

/// Looks until `condition` holds or five seconds have passed. Whether it held.
template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
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

/// A folder of the test's own, gone with it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "zk-test-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

/// What is appended, from now on, to a log that other processes write to as well.
class LogTail {
 public:
  explicit LogTail(std::string path) : path_(std::move(path)), from_(size()) {}
  std::string text() const {
    std::ifstream file(path_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(size() < from_ ? 0 : from_));  // 0: a new file by now
    return {std::istreambuf_iterator<char>(file), {}};
  }
  bool has(const std::string& piece) const { return text().find(piece) != std::string::npos; }

 private:
  std::uintmax_t size() const {
    std::error_code none;
    const auto octets = std::filesystem::file_size(path_, none);
    return none ? 0 : octets;
  }

  const std::string path_;
  const std::uintmax_t from_;
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
