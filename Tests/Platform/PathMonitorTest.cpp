#include <future>
#include <set>

#include <gtest/gtest.h>
#include <net/if.h>

#include "Platform/PathMonitor.h"

namespace zk {
namespace {

// What the interfaces are is the machine's affair. What holds on any machine is tested here.
TEST(AvailableInterfaces, AreRealOnesAndTheLoopbackIsNeverPhysical) {
  std::set<unsigned> indices;
  for (const NetworkInterface& interface : availableInterfaces()) {
    EXPECT_EQ(interface.index, if_nametoindex(interface.name.c_str())) << interface.name;
    EXPECT_TRUE(indices.insert(interface.index).second) << interface.name << " is listed twice";
    if (interface.name == "lo") {
      EXPECT_EQ(interface.type, InterfaceType::other);
    }
  }
}

TEST(PathMonitor, ReportsOnceOnItsQueueAndNotAfterCancel) {
  SerialQueue queue("zk.test.path");
  std::atomic<int> reports = 0;
  std::size_t count = 0;
  std::thread::id reporter;
  PathMonitor monitor([&](const std::vector<NetworkInterface>& available) {
    count = available.size();
    reporter = std::this_thread::get_id();
    ++reports;
  });
  monitor.start(queue);
  std::thread::id worker;
  queue.sync([&] { worker = std::this_thread::get_id(); });
  EXPECT_EQ(reports, 1);
  EXPECT_TRUE(reporter == worker);
  EXPECT_EQ(count, availableInterfaces().size());

  std::promise<void> gate;
  queue.async([&] { gate.get_future().wait(); });
  PathMonitor cancelled([&](const auto&) { ++reports; });
  cancelled.start(queue);
  cancelled.cancel();
  gate.set_value();
  queue.sync([] {});
  EXPECT_EQ(reports, 1);
}

}  // namespace
}  // namespace zk
