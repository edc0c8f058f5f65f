#include <array>
#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "Platform/SerialQueue.h"
#include "Support.h"

namespace zk {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, KeepsTheOrderOfEachProducerOnOneThread) {
  constexpr int producers = 8;
  constexpr int perProducer = 5000;
  std::vector<std::pair<int, int>> ran;  // the queue's
  std::set<std::thread::id> threads;
  {
    SerialQueue queue("zk.test.order");
    std::vector<std::thread> all;
    for (int producer = 0; producer < producers; ++producer) {
      all.emplace_back([&, producer] {
        for (int i = 0; i < perProducer; ++i) {
          queue.async([&, producer, i] {
            ran.emplace_back(producer, i);
            threads.insert(std::this_thread::get_id());
          });
        }
      });
    }
    for (std::thread& thread : all) {
      thread.join();
    }
  }
  ASSERT_EQ(ran.size(), std::size_t{producers} * perProducer);
  std::array<int, producers> next{};
  for (const auto& [producer, i] : ran) {
    ASSERT_EQ(i, next[static_cast<std::size_t>(producer)]++) << "producer " << producer;
  }
  EXPECT_EQ(threads.size(), 1U);
}

TEST(SerialQueue, SyncReturnsWhenAllThatWasQueuedBeforeHasRun) {
  SerialQueue queue("zk.test.a-long-label");
  EXPECT_EQ(queue.label(), "zk.test.a-long-label");
  std::string ran;  // the queue's
  std::string ranBefore;
  std::array<char, 32> threadName{};
  queue.async([&] {
    std::this_thread::sleep_for(30ms);
    ran += 'a';
  });
  queue.async([&] {
    ran += 'b';
    queue.async([&] { ran += 'd'; });  // from its own thread: behind what is queued already
  });
  queue.sync([&] {
    ran += 'c';
    ranBefore = ran;
    pthread_getname_np(pthread_self(), threadName.data(), threadName.size());
  });
  EXPECT_EQ(ranBefore, "abc");
  queue.sync([] {});
  EXPECT_EQ(ran, "abcd");
  EXPECT_STREQ(threadName.data(), "zk.test.a-long-");  // what a thread's name has room for
}

// The worker sleeps between any two of these; a wake-up that is lost once hangs the test.
TEST(SerialQueue, WakesUpEveryTime) {
  SerialQueue pong("zk.test.pong");
  SerialQueue ping("zk.test.ping");  // goes first, as its thread submits to the other
  for (int i = 0; i < 3000; ++i) {
    std::promise<void> back;
    ping.async([&] { pong.async([&] { back.set_value(); }); });
    ASSERT_EQ(back.get_future().wait_for(10s), std::future_status::ready) << i;
  }
}

TEST(SerialQueue, DestructionRunsWhatIsPending) {
  std::atomic<int> ran = 0;
  {
    SerialQueue queue("zk.test.pending");
    queue.async([] { std::this_thread::sleep_for(50ms); });
    for (int i = 0; i < 1000; ++i) {
      queue.async([&] { ++ran; });
    }
    EXPECT_LT(ran, 1000);
  }
  EXPECT_EQ(ran, 1000);
}

TEST(SerialQueue, MayLoseItsLastOwnerInsideItsOwnTask) {
  const auto threadsBefore = test::runningThreads();
  auto queue = std::make_shared<SerialQueue>("zk.test.suicide");
  std::promise<void> gate;
  std::promise<void> behind;
  SerialQueue* const plain = queue.get();
  plain->async([&gate, owner = std::move(queue)]() mutable {
    gate.get_future().wait();
    owner.reset();
  });
  plain->async([&] { behind.set_value(); });
  gate.set_value();
  EXPECT_EQ(behind.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(test::eventually([&] { return test::runningThreads() == threadsBefore; }));
}

TEST(SerialQueue, ReleasesWhatATaskCapturedBeforeTheNextOneRuns) {
  SerialQueue queue("zk.test.release");
  std::promise<void> gate;
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = token;
  bool wasReleased = false;
  queue.async([&] { gate.get_future().wait(); });
  queue.async([kept = std::move(token)] {});  // these two are taken as one batch
  queue.async([&] { wasReleased = watch.expired(); });
  gate.set_value();
  queue.sync([] {});
  EXPECT_TRUE(wasReleased);
}

// All ways onto the queue at once: each producer's items keep their order, and no two run together.
TEST(SerialQueue, KeepsOrderAndExclusionHoweverWorkIsSubmitted) {
  constexpr int producers = 4;
  constexpr int perProducer = 5000;
  std::array<int, producers> next{};  // the queue's
  std::atomic<bool> inside = false;
  {
    SerialQueue queue("zk.test.mixed");
    std::vector<std::thread> all;
    for (std::size_t producer = 0; producer < producers; ++producer) {
      all.emplace_back([&, producer] {
        for (int i = 0; i < perProducer; ++i) {
          const auto work = [&, producer, i] {
            EXPECT_FALSE(inside.exchange(true));
            EXPECT_EQ(next[producer]++, i);
            inside = false;
          };
          if (i % 7 == 0) {
            queue.async(work);
          } else if (i % 3 == 0 || !queue.runIfIdle(work)) {
            queue.asyncShort(work);
          }
        }
      });
    }
    for (std::thread& thread : all) {
      thread.join();
    }
  }
  for (const int count : next) {
    EXPECT_EQ(count, perProducer);
  }
}

TEST(SerialQueue, DoesShortWorkInPlaceUnlessSomethingElseIsUnderWay) {
  SerialQueue queue("zk.test.short");
  std::thread::id worker;
  queue.sync([&] { worker = std::this_thread::get_id(); });
  std::thread::id ranOn;
  const auto note = [&] { ranOn = std::this_thread::get_id(); };
  ASSERT_TRUE(test::eventually([&] { return queue.runIfIdle(note); }));
  EXPECT_TRUE(ranOn == std::this_thread::get_id());

  std::promise<void> gate;
  std::promise<void> started;
  queue.async([&] {
    started.set_value();
    gate.get_future().wait();
  });
  started.get_future().wait();
  EXPECT_FALSE(queue.runIfIdle(note));
  queue.asyncShort(note);  // returns, though the queue is held up
  gate.set_value();
  queue.sync([] {});
  EXPECT_TRUE(ranOn == worker);

  // What is queued from inside goes to the worker, which must not sleep through it.
  for (int i = 0; i < 500; ++i) {
    std::promise<std::thread::id> after;
    const auto submit = [&] { queue.async([&] { after.set_value(std::this_thread::get_id()); }); };
    if (!queue.runIfIdle(submit)) {
      queue.asyncShort(submit);
    }
    auto result = after.get_future();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready) << i;
    EXPECT_TRUE(result.get() == worker);
  }
}

}  // namespace
}  // namespace zk
