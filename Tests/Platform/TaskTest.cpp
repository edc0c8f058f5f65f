#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Task.h"

namespace zk {
namespace {

// Counts how many of it are alive, and which of them was called.
struct Probe {
  explicit Probe(int& aliveCount, int& callCount) : alive(&aliveCount), calls(&callCount) {
    ++*alive;
  }
  Probe(Probe&& other) noexcept : alive(other.alive), calls(other.calls) { ++*alive; }
  Probe& operator=(Probe&&) = delete;
  ~Probe() { --*alive; }
  void operator()() { ++*calls; }
  int* alive;
  int* calls;
};

TEST(Task, DestroysItsCaptureExactlyOnceHoweverOftenItMoves) {
  int alive = 0;
  int calls = 0;
  {
    Task first = Probe(alive, calls);
    EXPECT_EQ(alive, 1);
    Task second = std::move(first);
    EXPECT_EQ(alive, 1);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): being empty is the contract
    Task& same = second;
    second = std::move(same);
    ASSERT_TRUE(second);
    second();
    EXPECT_EQ(calls, 1);

    int otherAlive = 0;
    second = Probe(otherAlive, calls);
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(otherAlive, 1);
    std::vector<Task> grown;
    for (int i = 0; i < 100; ++i) {
      grown.emplace_back(Probe(alive, calls));
    }
    EXPECT_EQ(alive, 100);
    grown.clear();
    second = Task();
    EXPECT_EQ(otherAlive, 0);
  }
  EXPECT_EQ(alive, 0);
}

TEST(Task, KeepsMoveOnlyStateBetweenCallsAndUsesItsWholeRoom) {
  int seen = 0;
  Task counting = [count = std::make_unique<int>(0), &seen] { seen = ++*count; };
  counting();
  counting();
  EXPECT_EQ(seen, 2);

  struct Full {
    unsigned char octets[Task::capacity - sizeof(int*)];
    int* sum;
    void operator()() const {
      for (const unsigned char octet : octets) {
        *sum += octet;
      }
    }
  } full{{}, &seen};
  std::fill(std::begin(full.octets), std::end(full.octets), static_cast<unsigned char>(1));
  Task moved = Task(full);
  Task again = std::move(moved);
  again();
  EXPECT_EQ(seen, 2 + static_cast<int>(sizeof full.octets));
}

}  // namespace
}  // namespace zk
