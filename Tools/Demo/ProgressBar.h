#pragma once

#include <cstddef>
#include <string>

namespace zk::demo {

/// Replaces the current line of the terminal; does nothing when standard output is none. An empty
/// text takes the line away again.
void showPassingLine(const std::string& text);

/// One line on standard output that fills up; nothing at all when that is not a terminal.
class ProgressBar {
 public:
  ProgressBar(std::string label, std::size_t total);
  /// Takes the line away again.
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Redraws when the percentage has changed.
  void show(std::size_t done);

 private:
  const std::string label_;
  const std::size_t total_;
  std::size_t percent_ = 101;  // none drawn yet
};

}  // namespace zk::demo
