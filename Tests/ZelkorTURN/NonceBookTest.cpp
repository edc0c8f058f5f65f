#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ZelkorTURN/NonceBook.h"

namespace zk {
namespace {

// Spread like the random ones that the book counts on.
std::string nonce(std::uint64_t number) {
  return fmt::format("{:016x}{:016x}", number * 0x9E3779B97F4A7C15U, number);
}

TEST(NonceBook, DropsWhatIsOlderThanThreeHundredSecondsAtEachIssue) {
  NonceBook book;
  book.issue(nonce(1), 0);
  book.issue(nonce(2), 300);
  EXPECT_EQ(book.issueTime(nonce(1)), 0U);
  EXPECT_EQ(book.size(), 2U);
  book.issue(nonce(3), 301);
  EXPECT_EQ(book.issueTime(nonce(1)), std::nullopt);
  EXPECT_EQ(book.issueTime(nonce(2)), 300U);
  EXPECT_EQ(book.size(), 2U);
  EXPECT_EQ(book.issueTime(nonce(3)), 301U);  // looking prunes nothing, however late
}

TEST(NonceBook, KeepsOneEntryOfANonceWithItsLaterTime) {
  NonceBook book;
  book.issue(nonce(1), 0);
  book.issue(nonce(2), 100);
  book.issue(nonce(1), 200);
  EXPECT_EQ(book.size(), 2U);
  EXPECT_EQ(book.issueTime(nonce(1)), 200U);
  book.issue(nonce(3), 450);  // too late for the second, in time for the first
  EXPECT_EQ(book.issueTime(nonce(2)), std::nullopt);
  EXPECT_EQ(book.issueTime(nonce(1)), 200U);
}

TEST(NonceBook, ReckonsAcrossTheEndOfTheClock) {
  NonceBook book;
  book.issue(nonce(1), 0xFFFFFFF0U);
  book.issue(nonce(2), 200);
  EXPECT_EQ(book.size(), 2U);
  book.issue(nonce(3), 290);
  EXPECT_EQ(book.issueTime(nonce(1)), std::nullopt);
  EXPECT_EQ(book.size(), 2U);
}

TEST(NonceBook, KnowsNoTextThatIsNotANonce) {
  NonceBook book;
  const std::string known = "00112233445566778899aabbccddeeff";
  book.issue(known, 0);
  EXPECT_EQ(book.issueTime(known), 0U);
  for (const std::string& text :
       {std::string(), known.substr(1), known + "0",
        std::string("00112233445566778899AABBCCDDEEFF"),
        std::string("00112233445566778899aabbccddeefg"), std::string(32, '\0')}) {
    EXPECT_EQ(book.issueTime(text), std::nullopt) << text;
  }
}

// A flood of requests without credentials: the book forgets it all at once and still works.
TEST(NonceBook, ForgetsAFlood) {
  NonceBook book;
  for (std::uint64_t i = 0; i < 80'000; ++i) {
    book.issue(nonce(i), static_cast<std::uint32_t>(i / 1000));
  }
  EXPECT_EQ(book.size(), 80'000U);
  book.issue(nonce(1ULL << 40), 350);
  EXPECT_EQ(book.size(), 30'001U);  // issued at 50 and later
  EXPECT_EQ(book.issueTime(nonce(49'999)), std::nullopt);
  EXPECT_EQ(book.issueTime(nonce(50'000)), 50U);
  book.issue(nonce(1ULL << 41), 701);
  EXPECT_EQ(book.size(), 1U);
  book.issue(nonce(7), 702);
  EXPECT_EQ(book.issueTime(nonce(7)), 702U);
}

}  // namespace
}  // namespace zk
