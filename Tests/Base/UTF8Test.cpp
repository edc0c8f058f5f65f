#include <gtest/gtest.h>

#include "Base/UTF8.h"

namespace zk {
namespace {

// Table 3-7 of the Unicode standard, at its edges. In the second column ? is U+FFFD.
TEST(UTF8, ReplacesEachMalformedSequenceOnce) {
  using namespace std::string_literals;
  for (const auto& [octets, marked] :
       {std::pair("\0\x7F\xC2\x80\xDF\xBF"s, "\0\x7F\xC2\x80\xDF\xBF"s),
        {"\xE0\xA0\x80\xE1\x80\xBF\xED\x9F\xBF", "\xE0\xA0\x80\xE1\x80\xBF\xED\x9F\xBF"},
        {"\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80", "\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80"},
        {"\xF1\x80\xBF\x80\xF4\x8F\xBF\xBF", "\xF1\x80\xBF\x80\xF4\x8F\xBF\xBF"},
        {"a\x80z\xBF", "a?z?"},     // continuations on their own
        {"\xC1\xBFz", "??z"},       // overlong, as the next two
        {"\xE0\x9F\xBFz", "???z"},  // after the first octet nothing fits any more
        {"\xF0\x8F\xBF\xBFz", "????z"},
        {"\xED\xA0\x80z", "???z"},  // a surrogate
        {"\xF4\x90\x80\x80\xF5\x80",
         "????"
         "??"},                                     // above U+10FFFF
        {"\xC3{\xE2\x86{\xF0\x9F\x98{", "?{?{?{"},  // cut off by what stays
        {"\xF0\x9F\xC3\xA4\xE2\x86\xC0", "?\xC3\xA4??"},
        {"z\xC3", "z?"},  // cut off at the end
        {"z\xF0\x9F\x98", "z?"}}) {
    std::string text;
    for (const char c : marked) {
      text += c == '?' ? "\uFFFD" : std::string(1, c);
    }
    EXPECT_EQ(repairedUTF8(octets), text) << marked;
    EXPECT_EQ(isValidUTF8(octets), octets == text) << marked;
  }
  EXPECT_EQ(repairedUTF8(std::string_view("\xC3\xA9").substr(0, 1)), "\uFFFD");
}

}  // namespace
}  // namespace zk
