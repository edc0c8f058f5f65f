#include <future>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Platform/UDPConnection.h"
#include "Support.h"

namespace zk {
namespace {

using namespace std::chrono_literals;
using State = UDPConnection::State;
using Error = UDPConnection::Error;

struct Received {
  std::optional<Bytes> data;
  Error error;
  std::thread::id thread;
};

int boundSocket() {
  const int socket = openUDPSocket();
  EXPECT_TRUE(bindSocket(socket, socketAddress("127.0.0.1", 0)));
  return socket;
}

// A connection to a socket of the test on the loopback.
class UDPConnections : public testing::Test {
 protected:
  UDPConnections() {
    queue_->sync([&] { worker_ = std::this_thread::get_id(); });
  }
  ~UDPConnections() override { closeSocket(peer_); }

  std::pair<State, Error> start(UDPConnection& connection) {
    std::promise<std::pair<State, Error>> outcome;
    connection.start(queue_, [&](State state, const Error& error) {
      EXPECT_TRUE(std::this_thread::get_id() == worker_);
      outcome.set_value({state, error});
    });
    return outcome.get_future().get();
  }
  Error send(UDPConnection& connection, Bytes datagram) {
    std::promise<Error> outcome;
    connection.send(std::move(datagram), [&](const Error& error) { outcome.set_value(error); });
    return outcome.get_future().get();
  }
  std::future<Received> receive(UDPConnection& connection) {
    auto outcome = std::make_shared<std::promise<Received>>();
    connection.receive([outcome](const std::optional<Bytes>& data, const Error& error) {
      outcome->set_value({data, error, std::this_thread::get_id()});
    });
    return outcome->get_future();
  }

  int peer_ = boundSocket();
  const std::shared_ptr<SerialQueue> queue_ = std::make_shared<SerialQueue>("zk.test.udp");
  std::thread::id worker_;
  UDPConnection connection_{"127.0.0.1", portNumber(localAddress(peer_))};
};

TEST_F(UDPConnections, CarryOneDatagramEachWayWithHandlersOnTheQueue) {
  ASSERT_EQ(start(connection_).first, State::ready);
  auto answer = receive(connection_);
  EXPECT_EQ(send(connection_, {1, 2, 3}), std::nullopt);
  Bytes buffer(100);
  sockaddr_in from{};
  socklen_t length = sizeof from;
  ASSERT_EQ(
      recvfrom(peer_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length),
      3);
  const Bytes large(65507, 7);
  EXPECT_EQ(sendDatagram(peer_, large, from), 65507);
  const Received received = answer.get();
  EXPECT_EQ(received.data, large);
  EXPECT_EQ(received.error, std::nullopt);
  EXPECT_TRUE(received.thread == worker_);
}

TEST_F(UDPConnections, ReportWhatTheSystemRefuses) {
  UDPConnection unresolvable(std::string("a\0b", 3), 9);  // fails without a look-up
  const auto [state, error] = start(unresolvable);
  EXPECT_EQ(state, State::failed);
  EXPECT_TRUE(error && !error->empty());

  ASSERT_EQ(start(connection_).first, State::ready);
  EXPECT_EQ(send(connection_, Bytes(65508)), errorText(EMSGSIZE));
  closeSocket(peer_);
  auto answer = receive(connection_);
  EXPECT_EQ(send(connection_, {1}), std::nullopt);
  const Received received = answer.get();
  EXPECT_EQ(received.data, std::nullopt);
  EXPECT_EQ(received.error, errorText(ECONNREFUSED));
  peer_ = openUDPSocket();
}

TEST_F(UDPConnections, CancelEndsAWaitingReceiveWithAnError) {
  ASSERT_EQ(start(connection_).first, State::ready);
  auto answer = receive(connection_);
  std::this_thread::sleep_for(20ms);
  connection_.cancel();
  connection_.cancel();
  ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
  const Received received = answer.get();
  EXPECT_EQ(received.data, std::nullopt);
  EXPECT_NE(received.error, std::nullopt);
  EXPECT_EQ(send(connection_, {1}), errorText(ECANCELED));
  EXPECT_EQ(receive(connection_).get().error, errorText(ECANCELED));
}

TEST_F(UDPConnections, CancelledBeforeTheirStartFailAndLeaveNothingBehind) {
  const auto descriptors = test::openDescriptors();
  connection_.cancel();
  EXPECT_EQ(start(connection_).first, State::failed);
  {
    UDPConnection dropped("127.0.0.1", portNumber(localAddress(peer_)));
    ASSERT_EQ(start(dropped).first, State::ready);
    receive(dropped);
  }
  EXPECT_EQ(test::openDescriptors(), descriptors);
}

}  // namespace
}  // namespace zk
