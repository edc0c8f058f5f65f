#pragma once

#include <concepts>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "Base/Endpoint.h"

namespace zk {

/// Takes one line of a log, or several joined by line feeds, without the last line feed. Absent
/// means no logging. The text lives as long as the call.
using LogCallback = std::function<void(std::string_view)>;

/// Whether a text holds what must not get into a log: control characters, C1 and bidirectional ones
/// included, with which a stranger (a proxy names peers by octets of its choice) could forge lines
/// or have them read backwards.
bool holdsControl(std::string_view text);

/// Puts "?" in the place of each of them.
void replaceControls(fmt::memory_buffer& text);

/// Formats a line and hands it to `callback` when there is one. `format` is an FMT_COMPILE string:
/// reading a format anew each time would cost as much as the rest of a line.
template <typename Format, typename... Args>
void logLine(const LogCallback& callback, const Format& format, const Args&... args) {
  [[maybe_unused]] const auto isSuspicious = [](const auto& argument) {
    if constexpr (std::is_convertible_v<decltype(argument), std::string_view>) {
      return holdsControl(argument);
    } else {
      return false;
    }
  };
  if (callback) {
    fmt::memory_buffer line;
    fmt::format_to(std::back_inserter(line), format, args...);
    if ((false || ... || isSuspicious(args))) {
      replaceControls(line);
    }
    callback({line.data(), line.size()});
  }
}

/// Gathers the lines of one turn and hands them on together: every datagram is worth several lines,
/// and a call for each would cost more than the lines themselves. One thread.
class LineBatch {
 public:
  /// Lines for `sink`, which may be absent; `room` holds them meanwhile, and keeps its memory. Both
  /// outlive this.
  LineBatch(const LogCallback& sink, std::string& room) : sink_(sink), room_(room) {}
  ~LineBatch() { flush(); }
  LineBatch(const LineBatch&) = delete;
  LineBatch& operator=(const LineBatch&) = delete;

  /// A number in lowercase hexadecimal digits, so many.
  struct Hex {
    unsigned number;
    int digits = 2;
  };

  /// One line, which ends with the object. Its texts are our own, not a stranger's.
  class Line {
   public:
    explicit Line(std::string* to) : to_(to) {}
    ~Line() {
      if (to_ != nullptr) {
        to_->push_back('\n');
      }
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    Line& operator<<(std::string_view text) {
      if (to_ != nullptr) {
        to_->append(text);
      }
      return *this;
    }
    template <std::integral Number>
    Line& operator<<(Number number) {
      const fmt::format_int text(number);
      return *this << std::string_view(text.data(), text.size());
    }
    Line& operator<<(const Endpoint& endpoint) {
      char text[Endpoint::maxText];
      return *this << std::string_view(text, endpoint.write(text));
    }
    Line& operator<<(Hex hex) {
      for (int at = hex.digits - 1; at >= 0; --at) {
        *this << std::string_view("0123456789abcdef").substr(hex.number >> 4 * at & 0xF, 1);
      }
      return *this;
    }

   private:
    std::string* const to_;
  };

  Line line() { return Line(sink_ ? &room_ : nullptr); }
  /// A line that is formatted already.
  void add(std::string_view formatted) { line() << formatted; }

  /// Hands on what there is.
  void flush() {
    if (!room_.empty()) {
      sink_({room_.data(), room_.size() - 1});
      room_.clear();
    }
  }

 private:
  const LogCallback& sink_;
  std::string& room_;
};

}  // namespace zk
