#include <set>

#include <gtest/gtest.h>
#include <net/if.h>

#include "Platform/IPv4.h"
#include "Platform/Interfaces.h"

namespace zk {
namespace {

// What the interfaces are is the machine's affair. What holds on any machine is tested here.
TEST(Interfaces, AreRealOnesAndTheLoopbackIsNeverPhysical) {
  std::set<unsigned> indices;
  for (const NetworkInterface& interface : availableInterfaces()) {
    EXPECT_EQ(interface.index, if_nametoindex(interface.name.c_str())) << interface.name;
    EXPECT_TRUE(indices.insert(interface.index).second) << interface.name << " is listed twice";
    if (interface.name.starts_with("lo")) {
      EXPECT_EQ(interface.type, InterfaceType::other);
    }
  }
  const sockaddr_in here = socketAddress("127.0.0.1", 0);
  EXPECT_TRUE(isOwnAddress(reinterpret_cast<const sockaddr&>(here)));
  EXPECT_FALSE(hasRoute(0x7FFFFFFF, reinterpret_cast<const sockaddr&>(here)));
}

}  // namespace
}  // namespace zk
