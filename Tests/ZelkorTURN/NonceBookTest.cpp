#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ZelkorTURN/NonceBook.h"

namespace zk {
namespace {

// Nonces of one hash, the last of its table.
std::string alike(int number) {
  return fmt::format("ffffffffffffffff{:016x}", number);
}

// Nonces spread like the random ones that the book counts on.
std::string spread(std::uint64_t number) {
  return fmt::format("{:016x}{:016x}", number * 0x9E3779B97F4A7C15U, number);
}

TEST(NonceBook, DropsWhatIsOlderThanThreeHundredSecondsAtEachIssue) {
  for (const std::uint32_t start : {0U, 0xFFFFFFF0U}) {  // the clock may turn over
    NonceBook book;
    book.issue(alike(1), start);
    book.issue(alike(1), start + 100);  // the same again, as when the random source fails
    EXPECT_EQ(book.size(), 1U);
    book.issue(alike(2), start + 300);
    book.issue(alike(3), start + 400);
    EXPECT_EQ(book.issueTime(alike(1)), start + 100);
    EXPECT_EQ(book.size(), 3U);
    book.issue(alike(2), start + 401);
    EXPECT_EQ(book.issueTime(alike(1)), std::nullopt);
    EXPECT_EQ(book.issueTime(alike(2)), start + 401);
    EXPECT_EQ(book.issueTime(alike(3)), start + 400);
    book.issue(alike(4), start + 701);
    EXPECT_EQ(book.issueTime(alike(2)), start + 401);
    EXPECT_EQ(book.issueTime(alike(3)), std::nullopt);
    EXPECT_EQ(book.size(), 2U);
  }
}

TEST(NonceBook, KnowsNoTextThatIsNotANonce) {
  NonceBook book;
  const std::string known = "00112233445566778899aabbccddeeff";
  book.issue("no nonce", 0);
  EXPECT_EQ(book.size(), 0U);
  book.issue(known, 7);
  EXPECT_EQ(book.issueTime(known), 7U);
  for (const char* const text :
       {"", "00112233445566778899AABBCCDDEEFF", "0?112233445566778899aabbccddeeff",
        "?0112233445566778899aabbccddeeff", "00112233445566778899aabbccdddeff",
        "60112233445566778899aabbccddeeff", "00112233445566778899aabbccddeeff0"}) {
    EXPECT_EQ(book.issueTime(text), std::nullopt) << text;
  }
}

// A flood of requests without credentials.
TEST(NonceBook, KeepsTheNewestOfAFloodAndForgetsThemWhenNobodyAsks) {
  NonceBook book;
  constexpr std::uint64_t more = 10'000;
  for (std::uint64_t i = 0; i < NonceBook::maxNonces + more; ++i) {
    book.issue(spread(i), static_cast<std::uint32_t>(i / 1000));
  }
  EXPECT_EQ(book.size(), NonceBook::maxNonces);
  EXPECT_EQ(book.issueTime(spread(more - 1)), std::nullopt);
  EXPECT_EQ(book.issueTime(spread(more)), more / 1000);
  book.prune(610);
  EXPECT_EQ(book.size(), NonceBook::maxNonces);
  book.prune(660);
  EXPECT_EQ(book.issueTime(spread(59'999)), std::nullopt);
  EXPECT_EQ(book.issueTime(spread(60'000)), 60U);
  book.prune(1000);
  EXPECT_EQ(book.size(), 0U);
}

}  // namespace
}  // namespace zk
