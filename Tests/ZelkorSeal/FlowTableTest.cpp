#include <set>

#include <gtest/gtest.h>

#include "ZelkorSeal/FlowTable.h"
#include "ZelkorSeal/KeptIn.h"

namespace zk::test {
namespace {

constexpr Endpoint far{0xCB007107, 443};

Endpoint programAt(int i) {
  return {0xC0A80164, static_cast<std::uint16_t>(20'000 + i)};
}

TEST(FlowTableTest, GivesNoNumberAgainBeforeItHasRested) {
  std::uint64_t now = 1;
  FlowTable table([&] { return now; });
  std::set<std::uint64_t> given;
  std::vector<Endpoint> inOrder;
  for (int i = 0; i < 3000; ++i) {
    Flow* const flow = table.add(programAt(i), far);
    ASSERT_NE(flow, nullptr);
    ASSERT_TRUE(FlowTable::isNumber(flow->number));
    ASSERT_EQ(table.ofNumber(flow->number), flow);
    ASSERT_EQ(table.ofProgram(programAt(i), far), flow);
    EXPECT_TRUE(given.insert(flow->number.number()).second);
    inOrder.push_back(flow->number);
    table.remove(*flow);
    now += 10'000'000;
  }
  EXPECT_EQ(table.size(), 0U);
  now += 60'000'000'000 - 3000ULL * 10'000'000;  // the first has rested, the second nearly
  EXPECT_EQ(table.add(programAt(0), far)->number, inOrder[0]);
  EXPECT_FALSE(given.contains(table.add(programAt(1), far)->number.number()));
  now += 10'000'000;
  EXPECT_EQ(table.add(programAt(2), far)->number, inOrder[1]);
}

TEST(FlowTableTest, HoldsNoMoreThanItMayAndForgetsWhatIsQuiet) {
  FlowTable table([] { return std::uint64_t{1}; });
  for (std::uint32_t i = 0; i < FlowTable::maxFlows; ++i) {
    ASSERT_NE(table.add(programAt(1), {i, 443}), nullptr);
  }
  EXPECT_EQ(table.add(programAt(2), far), nullptr);
  Flow& carried = *table.ofProgram(programAt(1), {7, 443});
  for (int i = 0; i < 10; ++i) {
    table.sweep([&](const Flow& flow) { return &flow != &carried; });
  }
  EXPECT_EQ(table.size(), 1U);
  EXPECT_EQ(table.ofNumber(carried.number), &carried);
}

TEST(KeptInTest, TellsWhatWasMostInFiveSentences) {
  using Kind = KeptIn::Kind;
  KeptIn keptIn;
  const auto add = [&](int count, Kind kind, const Endpoint& to) {
    for (int i = 0; i < count; ++i) {
      keptIn.add(kind, to);
    }
  };
  add(1, Kind::icmp, {0xC6336402, 0});
  add(12, Kind::multicast, {0xE00000FB, 5353});
  EXPECT_EQ(keptIn.sentences(), (std::vector<std::string>{"12 multicast to 224.0.0.251:5353",
                                                          "1 ICMP to 198.51.100.2"}));
  for (std::uint16_t i = 0; i < 3000; ++i) {
    add(2, Kind::udp, {0xC6336402, i});
  }
  const auto sentences = keptIn.sentences();
  ASSERT_EQ(sentences.size(), KeptIn::maxSentences);
  EXPECT_EQ(sentences.front(), "12 multicast to 224.0.0.251:5353");
  EXPECT_EQ(sentences.back(), "5995 more to other addresses");
}

}  // namespace
}  // namespace zk::test
