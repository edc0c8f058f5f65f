#include <vector>

#include <gtest/gtest.h>

#include "Base/Endpoint.h"
#include "Platform/DatagramSocket.h"
#include "PrivateNetwork.h"
#include "Support.h"
#include "System.h"

namespace zk {
namespace {

constexpr std::size_t largest = 65507;  // octets in a UDP datagram over IPv4

DatagramSocket boundSocket() {
  DatagramSocket socket = DatagramSocket::open();
  socket.bind({INADDR_LOOPBACK, 0});
  socket.enlargeBuffers();
  return socket;
}

std::vector<Bytes> allWaiting(const DatagramSocket& socket, const Endpoint& from) {
  DatagramReceiver receiver;
  std::vector<Bytes> datagrams;
  for (int count = 1; count > 0;) {
    count = receiver.receive(socket);
    EXPECT_GE(count, 0);
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      datagrams.push_back(test::copyOf(receiver.datagram(i)));
      EXPECT_EQ(receiver.sender(i), from);
    }
  }
  return datagrams;
}

// Whether the kernel cuts them from one or they go one by one, which it insists on where it is not
// to compute checksums. A datagram that is refused holds up nobody.
TEST(DatagramSocket, BurstsArriveWholeAndInOrderWhateverTheirSizes) {
  using Sizes = std::vector<std::size_t>;
  for (const Sizes& sizes :
       {Sizes(32, 200), Sizes(32, 1200), Sizes(3, 1472), Sizes(3, 1473), Sizes(20, 4000),
        Sizes{1200, 1200, 1200, 700, 700, 700, 1200, 2, 2, 3, 3}, Sizes{0, 0, 5, 0, 5, 5, 0},
        Sizes{largest, 9, 9, 9, largest + 1, 9, 9, largest + 1, largest + 1, 9}}) {
    for (const int mode : {0, 1, 2, 3}) {
      SCOPED_TRACE(testing::PrintToString(sizes) + " mode " + std::to_string(mode));
      const bool refusesSegments = (mode & 1) != 0;
      const bool alternates = (mode & 2) != 0;
      DatagramSocket from = boundSocket();
      DatagramSocket to[] = {boundSocket(), boundSocket()};
      if (refusesSegments) {
        test::refuseSegments(from.descriptor());
      }
      std::vector<Bytes> datagrams;
      std::vector<Bytes> wanted[2];
      for (const std::size_t size : sizes) {
        datagrams.emplace_back(size, static_cast<std::uint8_t>(datagrams.size()));
      }
      DatagramSender sender;
      for (std::size_t i = 0; i < sizes.size(); ++i) {
        const std::size_t which = alternates && i % 3 == 2 ? 1 : 0;
        const std::size_t header = std::min<std::size_t>(sizes[i], 2);
        sender.add(ByteView(datagrams[i]).first(header), ByteView(datagrams[i]).subspan(header),
                   to[which].localAddress());
        if (sizes[i] <= largest) {
          wanted[which].push_back(datagrams[i]);
        }
      }
      EXPECT_EQ(sender.isFull(), sizes.size() == maxBurst);
      const auto results = sender.send(from);
      ASSERT_EQ(results.size(), sizes.size());
      for (std::size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(results[i].sent, sizes[i] > largest ? -1 : std::ptrdiff_t(sizes[i])) << i;
        EXPECT_FALSE(results[i].wouldBlock);
      }
      EXPECT_TRUE(sender.send(from).empty()) << "nothing is sent twice";
      EXPECT_EQ(allWaiting(to[0], from.localAddress()), wanted[0]);
      EXPECT_EQ(allWaiting(to[1], from.localAddress()), wanted[1]);
    }
  }
}

TEST(DatagramSocket, ReceivesSoManyAtATimeAndTellsErrorsFromNothing) {
  DatagramSocket near = boundSocket();
  DatagramSocket far = boundSocket();
  DatagramReceiver receiver;
  for (std::size_t i = 0; i < maxBurst + 1; ++i) {
    ASSERT_EQ(near.send(Bytes{static_cast<std::uint8_t>(i)}, far.localAddress()), 1);
  }
  EXPECT_EQ(receiver.receive(far), int(maxBurst));
  ASSERT_EQ(receiver.receive(far), 1);
  EXPECT_EQ(receiver.datagram(0)[0], maxBurst);
  EXPECT_EQ(receiver.receive(far), 0);
  EXPECT_EQ(receiver.receive(DatagramSocket()), -1);
  EXPECT_THROW(near.send(Bytes(largest + 1), far.localAddress()), std::system_error);
}

// An interface takes less than an Ethernet, as many a VPN's does: the system cuts no segments for
// it, but does cut datagrams into fragments.
TEST(DatagramSocket, BurstsPassAWayThatTakesLessThanTheirDatagrams) {
  const test::PrivateNetwork network;
  if (!network) {
    GTEST_SKIP() << "no namespaces here";
  }
  DatagramSocket from = boundSocket();
  const DatagramSocket to = boundSocket();
  DatagramSender sender;
  const Bytes payload(1400, 7);
  ASSERT_EQ(std::system("ip link set lo mtu 1280"), 0);
  for (int burst = 0; burst < 2; ++burst) {
    for (std::size_t i = 0; i < 20; ++i) {
      sender.add({}, payload, to.localAddress());
    }
    sender.send(from);
  }
  EXPECT_TRUE(allWaiting(to, from.localAddress()) == std::vector<Bytes>(40, payload));
}

TEST(DatagramSocket, SaysFromWhereOnThereIsNoRoom) {
  const test::PrivateNetwork network;
  if (!network) {
    GTEST_SKIP() << "needs root: sudo scripts/test";
  }
  DatagramSocket socket = DatagramSocket::open();
  const int smallest = 0;
  setsockopt(socket.descriptor(), SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
  DatagramSender sender;
  const Bytes payloads[] = {Bytes(1000), Bytes(999), Bytes(1001)};  // none can be cut from another
  for (std::size_t i = 0; i < maxBurst; ++i) {
    sender.add({}, payloads[i % 3], {*parseAddress(network.host), 9});
  }
  std::size_t sent = 0;
  const auto results = sender.send(socket);
  for (std::size_t i = 0; i < maxBurst; ++i) {
    sent += results[i].sent > 0 ? 1 : 0;
    EXPECT_EQ(results[i].wouldBlock, i >= sent);
  }
  EXPECT_GT(sent, 0U);
  EXPECT_LT(sent, maxBurst);
}

}  // namespace
}  // namespace zk
