#include <memory>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Clock.h"
#include "Platform/EventLoop.h"
#include "Platform/Sockets.h"

namespace zk {
namespace {

using namespace std::chrono_literals;

// Watches the reading end of a pipe that holds an octet, or none.
class Reader final : public EventLoop::Source {
 public:
  Reader(EventLoop& loop, std::function<void()> work, bool isReadable = true)
      : loop_(loop), work_(std::move(work)) {
    EXPECT_EQ(write(pipe_.writer.get(), "x", isReadable ? 1 : 0), isReadable ? 1 : 0);
    loop_.watch(descriptor(), *this);
  }
  ~Reader() { loop_.unwatch(descriptor()); }
  void onReadable() override { work_(); }
  int descriptor() const { return pipe_.reader.get(); }

 private:
  EventLoop& loop_;
  const std::function<void()> work_;
  Pipe pipe_ = openPipe();
};

class EventLoopTest : public testing::Test {
 protected:
  std::uint64_t now_ = 5'000'000'000;
  EventLoop loop_{[this] { return now_; }};
  std::string order_;
};

TEST_F(EventLoopTest, CallsNobodyTwiceBeforeAllOthers) {
  constexpr std::size_t count = 150;  // more than the system reports at once
  std::vector<std::size_t> calls;
  std::vector<std::unique_ptr<Reader>> readers;
  for (std::size_t i = 0; i < count; ++i) {
    readers.push_back(std::make_unique<Reader>(loop_, [&calls, i] { calls.push_back(i); }));
  }
  while (calls.size() < 3 * count) {
    loop_.turn(false);
  }
  for (auto from = calls.begin(); from < calls.begin() + 3 * count; from += count) {
    EXPECT_EQ(std::set<std::size_t>(from, from + count).size(), count);
  }
}

// Also when the number goes to another descriptor before the round is over.
TEST_F(EventLoopTest, CallsNobodyWhoIsNoLongerWatched) {
  std::unique_ptr<Reader> readers[2];
  std::unique_ptr<Reader> another;
  for (const int i : {0, 1}) {
    readers[i] = std::make_unique<Reader>(loop_, [&, i] {
      order_ += 'r';
      const int freed = readers[1 - i]->descriptor();
      readers[1 - i].reset();
      another = std::make_unique<Reader>(
          loop_, [&] { order_ += 'a'; }, false);
      EXPECT_EQ(another->descriptor(), freed);
      readers[i].reset();  // itself, too
    });
  }
  loop_.turn(false);
  loop_.turn(false);
  EXPECT_EQ(order_, "r");
}

// Both ends of a connection: what it is called for shows in the order.
TEST_F(EventLoopTest, CallsForWhatIsOfInterestWhileItLasts) {
  struct End final : EventLoop::Source {
    explicit End(std::string& calls) : order(calls) {}
    void onReadable() override { order += 'r'; }
    void onWritable() override { order += 'w'; }
    std::string& order;
  } end(order_);
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  Descriptor near(pair[0]);
  Descriptor far(pair[1]);
  const auto turns = [&](EventLoop::Interest interest) {
    order_.clear();
    loop_.setInterest(near.get(), interest);
    loop_.turn(false);
    loop_.turn(false);
    return order_;
  };
  std::vector<char> octets(1 << 20);
  loop_.watch(near.get(), end);
  EXPECT_EQ(turns({.readable = true}), "");
  EXPECT_EQ(turns({.writable = true}), "ww");
  while (send(near.get(), octets.data(), octets.size(), MSG_DONTWAIT) > 0) {
  }
  EXPECT_EQ(turns({.readable = true, .writable = true}), "") << "it is full";
  EXPECT_EQ(write(far.get(), "x", 1), 1);
  EXPECT_EQ(turns({.readable = true, .writable = true}), "rr");
  EXPECT_EQ(turns({}), "");
  EXPECT_EQ(turns({.failed = true}), "");
  while (recv(far.get(), octets.data(), octets.size(), MSG_DONTWAIT) > 0) {
  }
  EXPECT_EQ(turns({.readable = true, .writable = true}), "rwrw");
  far.reset();
  EXPECT_EQ(turns({}), "") << "an end that nobody waits for must not keep the loop busy";
  EXPECT_EQ(turns({.writable = true}), "ww");
  EXPECT_EQ(turns({.failed = true}), "rr");
  loop_.unwatch(near.get());
  loop_.turn(false);
  EXPECT_EQ(order_, "rr");
}

TEST_F(EventLoopTest, RunsTimersWhenTheyAreDueInTheirOrder) {
  const auto says = [this](char name) { return [this, name] { order_ += name; }; };
  loop_.after(10ms, says('d'));
  loop_.after(5ms, says('a'));
  const auto cancelled = loop_.after(5ms, says('x'));
  loop_.after(5ms, [&] {
    order_ += 'b';
    loop_.after(0ms, says('c'));  // in the next round: it must not keep others from their turn
  });
  loop_.cancel(cancelled);
  for (const auto& [milliseconds, sofar] : {std::pair(4, ""), {1, "ab"}, {0, "abc"}, {5, "abcd"}}) {
    now_ += static_cast<std::uint64_t>(milliseconds) * 1'000'000;
    loop_.turn(false);
    EXPECT_EQ(order_, sofar);
  }
}

// Else an idle loop would wake up for nothing, and a busy one set its timer in every round.
TEST(Poller, TellsThatItsTimerHasGoneOnlyWhenItHas) {
  Poller poller;
  std::vector<int> ready;
  std::vector<int> writable;
  poller.setTimer(1h);
  EXPECT_FALSE(poller.wait(false, ready, writable).hasTimerGone);
  poller.setTimer(0ns);
  EXPECT_TRUE(poller.wait(true, ready, writable).hasTimerGone);
}

// Woken while it waits: for a post, a timer, and the stop.
TEST(RunningLoop, RunsWhatOthersPostInOrderUntilItIsStopped) {
  EventLoop loop(monotonicNanoseconds);
  std::vector<int> ran;
  std::thread thread([&] { loop.run(); });
  for (int i = 0; i < 1000; ++i) {
    loop.post([&, i] { ran.push_back(i); });
  }
  loop.post([&] {
    loop.after(1ms, [&] {
      loop.post([&] { loop.stop(); });
      loop.post([&] { ran.push_back(-1); });  // behind the stop
    });
  });
  thread.join();
  ASSERT_EQ(ran.size(), 1000U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

}  // namespace
}  // namespace zk
