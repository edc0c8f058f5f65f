#include <csignal>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/ByteStreamPair.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Support.h"

namespace zk {
namespace {

using namespace std::chrono_literals;

ByteStreamPair::Deadline in(std::chrono::milliseconds limit) {
  return std::chrono::steady_clock::now() + limit;
}

// Both ends of a TCP connection on the loopback: ours as streams, the far one as a socket.
class ByteStreams : public testing::Test {
 protected:
  ByteStreams() {
    const int listener = openSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_TRUE(bindSocket(listener, socketAddress("127.0.0.1", 0)));
    listen(listener, 1);
    const sockaddr_in address = localAddress(listener);
    near_ = openSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(connect(near_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    far_ = accept(listener, nullptr, nullptr);
    closeSocket(listener);
    signal(SIGPIPE, SIG_DFL);  // one that is raised shall end the test
    streams_ = ByteStreamPair::create(near_);
  }
  ~ByteStreams() override { closeFar(); }

  void closeFar() {
    if (far_ >= 0) {
      closeSocket(std::exchange(far_, -1));
    }
  }
  void resetFar() {
    const linger none{1, 0};
    setsockopt(far_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    closeFar();
    std::this_thread::sleep_for(20ms);
  }

  int near_ = -1;
  int far_ = -1;
  std::unique_ptr<ByteStreamPair> streams_;
  Bytes buffer_ = Bytes(16);
};

TEST_F(ByteStreams, ReadGivesWhatIsThereAndNoMoreThanAskedFor) {
  streams_->open();
  EXPECT_EQ(streams_->status(), StreamStatus::open);
  EXPECT_EQ(send(far_, "hello", 5, 0), 5);
  EXPECT_EQ(streams_->read(std::span(buffer_).first(3), in(1s)), 3);
  EXPECT_EQ(streams_->read(buffer_, in(-1s)), 2);  // what is there is read even when it is late
  EXPECT_EQ(test::textOf(ByteView(buffer_).first(2)), "lo");
  EXPECT_EQ(streams_->write(bytesOf("answer")), 6);
  EXPECT_EQ(recv(far_, buffer_.data(), buffer_.size(), 0), 6);
}

TEST_F(ByteStreams, ReadWaitsForItsDeadlineAndNoLonger) {
  streams_->open();
  const test::Stopwatch silent;
  EXPECT_EQ(streams_->read(buffer_, in(100ms)), 0);
  EXPECT_GE(silent.seconds(), 0.1);
  EXPECT_LT(silent.seconds(), 0.6);
  std::thread late([&] {
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(send(far_, "x", 1, 0), 1);
  });
  EXPECT_EQ(streams_->read(buffer_, in(5s)), 1);
  late.join();
}

TEST_F(ByteStreams, EndOfStreamIsZeroAtOnce) {
  streams_->open();
  closeFar();
  const test::Stopwatch time;
  EXPECT_EQ(streams_->read(buffer_, in(5s)), 0);
  EXPECT_EQ(streams_->read(buffer_, in(5s)), 0);
  EXPECT_LT(time.seconds(), 1.0);
}

TEST_F(ByteStreams, ResetIsAnErrorAndNeverASignal) {
  streams_->open();
  resetFar();
  EXPECT_LT(streams_->read(buffer_, in(1s)), 0);
  EXPECT_LT(streams_->write(bytesOf("x")), 0);
  EXPECT_LT(streams_->write(bytesOf("x")), 0);
}

TEST_F(ByteStreams, OpeningABrokenConnectionTellsWhy) {
  EXPECT_EQ(streams_->status(), StreamStatus::notOpen);
  resetFar();
  streams_->open();
  EXPECT_EQ(streams_->status(), StreamStatus::error);
  EXPECT_EQ(streams_->errorDescription(), errorText(ECONNRESET));
}

TEST_F(ByteStreams, ClosingAndDestructionCloseTheSocket) {
  streams_->close();
  EXPECT_EQ(streams_->status(), StreamStatus::closed);
  EXPECT_EQ(recv(far_, buffer_.data(), buffer_.size(), 0), 0);
  EXPECT_LT(fcntl(near_, F_GETFD), 0);
  EXPECT_LT(streams_->read(buffer_, in(10ms)), 1);
  EXPECT_LT(streams_->write(bytesOf("x")), 1);
  streams_->close();

  const int other = dup(far_);
  ByteStreamPair::create(other).reset();
  EXPECT_LT(fcntl(other, F_GETFD), 0);
}

TEST_F(ByteStreams, NeedAStreamSocketAndLeaveAnythingElseToTheCaller) {
  const int datagrams = openUDPSocket();
  EXPECT_EQ(ByteStreamPair::create(datagrams), nullptr);
  EXPECT_GE(fcntl(datagrams, F_GETFD), 0);
  closeSocket(datagrams);
  const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
  EXPECT_EQ(ByteStreamPair::create(file), nullptr);
  close(file);
  EXPECT_EQ(ByteStreamPair::create(-1), nullptr);
}

}  // namespace
}  // namespace zk
