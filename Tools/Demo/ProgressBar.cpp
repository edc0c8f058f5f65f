#include "Demo/ProgressBar.h"

#include <cstdio>

#include <fmt/format.h>
#include <unistd.h>

namespace zk::demo {
namespace {

constexpr std::size_t width = 40;

}  // namespace

void showPassingLine(const std::string& text) {
  static const bool terminal = isatty(STDOUT_FILENO) == 1;
  if (terminal) {
    fmt::print("\r\033[K{}", text);
    std::fflush(stdout);
  }
}

ProgressBar::ProgressBar(std::string label, std::size_t total)
    : label_(std::move(label)), total_(total) {
  show(0);
}

ProgressBar::~ProgressBar() {
  showPassingLine("");
}

void ProgressBar::show(std::size_t done) {
  const std::size_t percent = total_ == 0 ? 100 : done * 100 / total_;
  if (percent == percent_) {
    return;
  }
  percent_ = percent;
  const std::size_t filled = percent * width / 100;
  showPassingLine(
      fmt::format("{} [{:#<{}}{: <{}}] {:3} %", label_, "", filled, "", width - filled, percent));
}

}  // namespace zk::demo
