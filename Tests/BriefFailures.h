#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace zk::test {

/// The usual printer, which shows no more of an expectation than a reader wants to see, even when
/// two logs of a megabyte were compared.
class BriefPrinter final : public testing::TestEventListener {
 public:
  explicit BriefPrinter(testing::TestEventListener* printer) : printer_(printer) {}

  void OnTestPartResult(const testing::TestPartResult& result) override {
    printer_->OnTestPartResult(
        {result.type(), result.file_name(), result.line_number(), brief(result.message()).c_str()});
  }

  void OnTestProgramStart(const testing::UnitTest& t) override { printer_->OnTestProgramStart(t); }
  void OnTestIterationStart(const testing::UnitTest& t, int i) override {
    printer_->OnTestIterationStart(t, i);
  }
  void OnEnvironmentsSetUpStart(const testing::UnitTest&) override {}
  void OnEnvironmentsSetUpEnd(const testing::UnitTest&) override {}
  void OnTestSuiteStart(const testing::TestSuite& s) override { printer_->OnTestSuiteStart(s); }
  void OnTestStart(const testing::TestInfo& i) override { printer_->OnTestStart(i); }
  void OnTestEnd(const testing::TestInfo& i) override { printer_->OnTestEnd(i); }
  void OnTestSuiteEnd(const testing::TestSuite& s) override { printer_->OnTestSuiteEnd(s); }
  void OnEnvironmentsTearDownStart(const testing::UnitTest&) override {}
  void OnEnvironmentsTearDownEnd(const testing::UnitTest&) override {}
  void OnTestIterationEnd(const testing::UnitTest& t, int i) override {
    printer_->OnTestIterationEnd(t, i);
  }
  void OnTestProgramEnd(const testing::UnitTest& t) override { printer_->OnTestProgramEnd(t); }

 private:
  static std::string brief(std::string_view message) {
    constexpr int maxLines = 18;
    constexpr std::size_t maxLine = 300;
    std::string text;
    for (int lines = 0; !message.empty(); ++lines) {
      const std::string_view line = message.substr(0, message.find('\n'));
      message.remove_prefix(std::min(message.size(), line.size() + 1));
      if (lines == maxLines) {
        return text + "...";
      }
      text.append(line.substr(0, maxLine)).append(line.size() > maxLine ? "...\n" : "\n");
    }
    return text;
  }

  const std::unique_ptr<testing::TestEventListener> printer_;
};

/// Before the tests run.
inline void failBriefly() {
  auto& listeners = testing::UnitTest::GetInstance()->listeners();
  listeners.Append(new BriefPrinter(listeners.Release(listeners.default_result_printer())));
}

}  // namespace zk::test
