#include <csignal>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Platform/ByteStreamPair.h"
#include "Platform/IPv4.h"
#include "Platform/StopSignal.h"
#include "Support.h"

namespace zk {
namespace {

using namespace std::chrono_literals;

Deadline in(std::chrono::milliseconds limit) {
  return std::chrono::steady_clock::now() + limit;
}

// Both ends of a TCP connection on the loopback: ours as streams, the far one as a socket.
class ByteStreams : public testing::Test {
 protected:
  ByteStreams() {
    const Descriptor listener(openSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    EXPECT_TRUE(bindSocket(listener.get(), socketAddress("127.0.0.1", 0)));
    listen(listener.get(), 1);
    const sockaddr_in address = localAddress(listener.get());
    Descriptor near = openNonBlockingSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    connect(near.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    far_ = Descriptor(accept(listener.get(), nullptr, nullptr));
    signal(SIGPIPE, SIG_DFL);  // one that is raised shall end the test
    streams_.emplace(std::move(near), &stop_);
  }

  void resetFar() {
    const linger none{1, 0};
    setsockopt(far_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    far_.reset();
    std::this_thread::sleep_for(20ms);
  }

  StopSignal stop_;
  Descriptor far_;
  std::optional<ByteStreamPair> streams_;
  Bytes buffer_ = Bytes(16);
};

TEST_F(ByteStreams, CarryWhatIsThereAndNoMoreThanAskedFor) {
  EXPECT_EQ(send(far_.get(), "hello", 5, 0), 5);
  EXPECT_EQ(streams_->read(std::span(buffer_).first(3), in(1s)), 3);
  EXPECT_EQ(streams_->read(buffer_, in(-1s)), 2);  // what is there is read even when it is late
  EXPECT_EQ(test::textOf(ByteView(buffer_).first(2)), "lo");
  EXPECT_EQ(streams_->write(bytesOf("answer"), in(1s)), 6);
  EXPECT_EQ(recv(far_.get(), buffer_.data(), buffer_.size(), 0), 6);
  const int descriptor = streams_->descriptor();
  streams_.reset();
  EXPECT_EQ(recv(far_.get(), buffer_.data(), buffer_.size(), 0), 0);
  EXPECT_LT(fcntl(descriptor, F_GETFD), 0);
}

TEST_F(ByteStreams, WaitForTheirDeadlineOrTheStopSignalAndNoLonger) {
  const auto take = [&](Deadline deadline) { return streams_->read(buffer_, deadline); };
  const Bytes much(1 << 20);
  const auto fill = [&](Deadline deadline) {
    std::ptrdiff_t written = 0;
    while ((written = streams_->write(much, deadline)) > 0) {
    }
    return written;
  };
  test::Stopwatch silent;
  EXPECT_EQ(take(in(100ms)), 0);
  EXPECT_EQ(fill(in(100ms)), 0);  // nobody reads at the other end
  EXPECT_GE(silent.seconds(), 0.1);
  EXPECT_LT(silent.seconds(), 2);
  std::thread late([&] {
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(send(far_.get(), "x", 1, 0), 1);
    std::this_thread::sleep_for(50ms);
    stop_.raise();
    stop_.raise();
  });
  EXPECT_EQ(take(in(60s)), 1);
  EXPECT_EQ(take(in(60s)), 0);
  EXPECT_EQ(fill(in(60s)), 0);
  EXPECT_LT(silent.seconds(), 30);
  late.join();
}

TEST_F(ByteStreams, TellTheirEndAndNeverRaiseASignal) {
  EXPECT_EQ(streams_->takeEnd(), std::nullopt);
  EXPECT_EQ(send(far_.get(), "idle talk", 9, 0), 9);
  EXPECT_EQ(streams_->takeEnd(), std::nullopt);
  EXPECT_EQ(streams_->read(buffer_, in(0s)), 0);  // the talk is gone
  shutdown(far_.get(), SHUT_WR);
  EXPECT_EQ(streams_->read(buffer_, in(60s)), 0);
  EXPECT_EQ(streams_->takeEnd(), "end of stream");
}

TEST_F(ByteStreams, TellAReset) {
  resetFar();
  EXPECT_EQ(streams_->takeEnd(), errorText(ECONNRESET));
  EXPECT_LT(streams_->write(bytesOf("x"), in(1s)), 0);
  EXPECT_LT(streams_->write(bytesOf("x"), in(1s)), 0);
}

}  // namespace
}  // namespace zk
