#include <cerrno>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Datagrams.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Support.h"

namespace zk {
namespace {

constexpr std::size_t largest = 65507;  // octets in a UDP datagram over IPv4

class Datagrams : public testing::Test {
 protected:
  Datagrams() {
    EXPECT_TRUE(bindSocket(near_, socketAddress("127.0.0.1", 0)));
    EXPECT_TRUE(bindSocket(far_, socketAddress("127.0.0.1", 0)));
  }
  ~Datagrams() override {
    closeSocket(near_);
    closeSocket(far_);
  }

  const int near_ = openUDPSocket();
  const int far_ = openUDPSocket();
  DatagramReceiver receiver_{DatagramReceiver::Senders::noted};
  DatagramSender sender_;
};

TEST_F(Datagrams, ComeInOrderAsManyAsThereAre) {
  const sockaddr_in to = localAddress(far_);
  const std::vector<Bytes> payloads{{1}, {}, Bytes(largest, 7), {2, 3}};
  for (const Bytes& payload : payloads) {
    ASSERT_EQ(sendDatagram(near_, payload, to), std::ptrdiff_t(payload.size()));
  }
  ASSERT_EQ(receiver_.receive(far_), 4) << "without waiting for more";
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    EXPECT_EQ(test::copyOf(receiver_.datagram(i)), payloads[i]);
    EXPECT_EQ(portNumber(receiver_.sender(i)), portNumber(localAddress(near_)));
    EXPECT_EQ(addressText(receiver_.sender(i)), "127.0.0.1");
  }
  for (std::size_t i = 0; i < mostPerCall + 1; ++i) {
    ASSERT_EQ(sendDatagram(near_, Bytes{static_cast<std::uint8_t>(i)}, to), 1);
  }
  EXPECT_EQ(receiver_.receive(far_), int(mostPerCall));
  ASSERT_EQ(receiver_.receive(far_), 1);
  EXPECT_EQ(receiver_.datagram(0)[0], mostPerCall);
  EXPECT_EQ(receiver_.receive(-1), -1);
  EXPECT_EQ(errno, EBADF);
}

// Wherever among the others they are, and whoever the others go to.
TEST_F(Datagrams, ThatAreRefusedDoNotHoldUpOthers) {
  const Bytes tooLarge(largest);
  const Bytes fitting(largest - 2);
  for (const auto& refused : {std::set<std::size_t>{}, {0, 1}, {3}, {7}, {2, 4, 5}}) {
    for (std::size_t i = 0; i < mostPerCall; ++i) {
      const bool isRefused = refused.count(i) == 1;
      const Bytes header{static_cast<std::uint8_t>(i), 0xFF};
      sender_.add(header,
                  isRefused ? tooLarge
                  : i == 6  ? fitting
                            : ByteView(),
                  localAddress(i % 2 == 0 ? far_ : near_));
    }
    EXPECT_TRUE(sender_.isFull());
    const auto outcomes = sender_.send(near_);
    ASSERT_EQ(outcomes.size(), mostPerCall);
    for (const int socket : {far_, near_}) {
      int waiting = 0;
      for (std::size_t i = socket == far_ ? 0 : 1; i < mostPerCall; i += 2) {
        waiting += refused.count(i) == 0 ? 1 : 0;
      }
      ASSERT_EQ(receiver_.receive(socket), waiting);
      std::size_t arrived = 0;
      for (std::size_t i = socket == far_ ? 0 : 1; i < mostPerCall; i += 2) {
        const bool isRefused = refused.count(i) == 1;
        EXPECT_EQ(outcomes[i].error, isRefused ? EMSGSIZE : 0) << i;
        if (!isRefused) {
          const ByteView datagram = receiver_.datagram(arrived++);
          EXPECT_EQ(datagram[0], i);
          EXPECT_EQ(datagram.size(), i == 6 ? largest : 2U);
          EXPECT_EQ(outcomes[i].sent, std::ptrdiff_t(datagram.size()));
        } else {
          EXPECT_EQ(outcomes[i].sent, -1);
        }
      }
    }
    EXPECT_EQ(sender_.size(), 0U);
    EXPECT_TRUE(sender_.send(near_).empty()) << "nothing is sent twice";
  }
}

}  // namespace
}  // namespace zk
