#include <csignal>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Base/Endpoint.h"
#include "Platform/ByteStreamPair.h"
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
    EXPECT_TRUE(bindSocket(listener.get(), Endpoint{INADDR_LOOPBACK, 0}.socketAddress()));
    listen(listener.get(), 1);
    const sockaddr_in address = localAddress(listener.get());
    Descriptor near = openNonBlockingSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    connect(near.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    far_ = Descriptor(accept(listener.get(), nullptr, nullptr));
    signal(SIGPIPE, SIG_DFL);  // one that is raised shall end the test
    streams_.emplace(std::move(near), &stop_);
  }

  StopSignal stop_;
  Descriptor far_;
  std::optional<ByteStreamPair> streams_;
  Bytes buffer_ = Bytes(16);
};

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
  EXPECT_EQ(send(far_.get(), "idle talk", 9, 0), 9);
  EXPECT_EQ(streams_->read(std::span(buffer_).first(5), in(-1s)), 5);  // late, but it is there
  EXPECT_EQ(streams_->takeEnd(), std::nullopt);
  EXPECT_EQ(streams_->read(buffer_, in(0s)), 0);  // the talk is gone
  const linger none{1, 0};
  setsockopt(far_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  far_.reset();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(streams_->takeEnd(), errorText(ECONNRESET));
  EXPECT_LT(streams_->write(bytesOf("x"), in(1s)), 0);
  EXPECT_LT(streams_->write(bytesOf("x"), in(1s)), 0);
}

}  // namespace
}  // namespace zk
