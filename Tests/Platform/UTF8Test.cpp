#include <gtest/gtest.h>

#include "Platform/UTF8.h"

namespace zk {
namespace {

std::string encoded(unsigned point) {
  const auto octet = [](unsigned value) { return static_cast<char>(value); };
  if (point < 0x80) {
    return {octet(point)};
  }
  if (point < 0x800) {
    return {octet(0xC0 | point >> 6), octet(0x80 | (point & 0x3F))};
  }
  if (point < 0x10000) {
    return {octet(0xE0 | point >> 12), octet(0x80 | (point >> 6 & 0x3F)),
            octet(0x80 | (point & 0x3F))};
  }
  return {octet(0xF0 | point >> 18), octet(0x80 | (point >> 12 & 0x3F)),
          octet(0x80 | (point >> 6 & 0x3F)), octet(0x80 | (point & 0x3F))};
}

TEST(UTF8, AcceptsEveryCodePointButSurrogatesAndNothingAbove) {
  for (unsigned point = 0; point < 0x120000; ++point) {
    const bool expected = point < 0x110000 && (point < 0xD800 || point > 0xDFFF);
    ASSERT_EQ(isValidUTF8(encoded(point)), expected) << std::hex << point;
  }
}

TEST(UTF8, ReplacesEachMalformedSequenceOnce) {
  using namespace std::string_literals;
  const std::string mark = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"plain \xC3\xA4 \xE2\x86\x92 \xF0\x9F\x98\x80\0x"s,
       "plain \xC3\xA4 \xE2\x86\x92 \xF0\x9F\x98\x80\0x"s},
      {"a\x80z", "a" + mark + "z"},                     // a continuation on its own
      {"\xC0\xAF", mark + mark},                        // overlong "/"
      {"\xE0\x80\xAF", mark + mark + mark},             // the same, longer
      {"\xED\xA0\x80", mark + mark + mark},             // a surrogate
      {"\xF4\x90\x80\x80", mark + mark + mark + mark},  // above U+10FFFF
      {"\xF5\xFF", mark + mark},
      {"\xC3", mark},  // cut off at the end
      {"\xE2\x86", mark},
      {"\xF0\x9F\x98", mark},
      {"\xE2\x86{", mark + "{"},  // cut off by the next character, which stays
      {"\xF0\x9F\xC3\xA4", mark + "\xC3\xA4"}};
  for (const auto& [octets, text] : cases) {
    EXPECT_EQ(repairedUTF8(octets), text);
    EXPECT_EQ(isValidUTF8(octets), octets == text);
    EXPECT_TRUE(isValidUTF8(repairedUTF8(octets)));
  }
}

}  // namespace
}  // namespace zk
