#include <gtest/gtest.h>

#include "zkturnd/StatusOutput.h"

namespace zk {
namespace {

TEST(StatusOutput, ReadyLineIsExact) {
  EXPECT_EQ(readyLine(1), "{\"port\":1,\"status\":\"ready\"}\n");
  EXPECT_EQ(readyLine(65535), "{\"port\":65535,\"status\":\"ready\"}\n");
}

TEST(StatusOutput, ErrorLineEscapesThreeCharactersAndNoOther) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"plain", "plain"},
      {"\"\n\\", "\\\"\\n\\\\"},
      {"\\n", "\\\\n"},
      {"\\\"", "\\\\\\\""},
      {"tab\tcr\rbell\a \u00E9\u2192 /", "tab\tcr\rbell\a \u00E9\u2192 /"}};
  for (const auto& [message, escaped] : cases) {
    EXPECT_EQ(errorLine(message), "{\"status\":\"error\",\"message\":\"" + escaped + "\"}\n");
  }
}

TEST(StatusOutputDeathTest, FailWithEndsTheProcessWithStatusOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(failWith("broken"), testing::ExitedWithCode(1), "");
}

}  // namespace
}  // namespace zk
