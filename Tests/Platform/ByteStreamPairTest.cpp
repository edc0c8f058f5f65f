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
using Kind = StreamResult::Kind;

Deadline in(std::chrono::milliseconds limit) {
  return Deadline::clock::now() + limit;
}

// Both ends of a TCP connection on the loopback: ours as streams, the far one as a socket.
class ByteStreams : public testing::Test {
 protected:
  ByteStreams() {
    signal(SIGPIPE, SIG_DFL);  // one that is raised shall end the test
    connectAnew();
  }
  void connectAnew() {
    const Descriptor listener(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    sockaddr_in address = Endpoint{INADDR_LOOPBACK, 0}.socketAddress();
    socklen_t length = sizeof address;
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener.get(), raw, length), 0);
    listen(listener.get(), 1);
    getsockname(listener.get(), raw, &length);
    Descriptor near = openNonBlockingSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    connect(near.get(), raw, length);
    far_ = Descriptor(accept(listener.get(), nullptr, nullptr));
    streams_.emplace(std::move(near), &stop_);
  }

  StopSignal stop_;
  Descriptor far_;
  std::optional<ByteStreamPair> streams_;
  Bytes buffer_ = Bytes(16);
};

TEST_F(ByteStreams, WaitForTheirDeadlineOrTheStopSignalAndNoLonger) {
  const auto take = [&](Deadline deadline) { return streams_->read(buffer_, deadline).kind; };
  const Bytes much(1 << 20);
  const auto fill = [&](Deadline deadline) {
    Kind kind = Kind::octets;
    while ((kind = streams_->write(much, deadline).kind) == Kind::octets) {
    }
    return kind;
  };
  test::Stopwatch silent;
  EXPECT_EQ(take(in(100ms)), Kind::timedOut);
  EXPECT_EQ(fill(in(100ms)), Kind::timedOut);  // nobody reads at the other end
  EXPECT_GE(silent.seconds(), 0.1);
  EXPECT_LT(silent.seconds(), 2);
  std::thread late([&] {
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(send(far_.get(), "x", 1, 0), 1);
    std::this_thread::sleep_for(50ms);
    stop_.raise();
    stop_.raise();
  });
  EXPECT_EQ(take(in(60s)), Kind::octets);
  EXPECT_EQ(take(in(60s)), Kind::stopped);
  EXPECT_EQ(fill(in(60s)), Kind::stopped);
  EXPECT_LT(silent.seconds(), 30);
  late.join();
}

TEST_F(ByteStreams, TellTheirEndAndNeverRaiseASignal) {
  EXPECT_EQ(send(far_.get(), "idle talk", 9, 0), 9);
  EXPECT_EQ(streams_->read(std::span(buffer_).first(5), in(-1s)).count,
            5U);  // late, but it is there
  EXPECT_FALSE(streams_->takeEnd());
  EXPECT_EQ(streams_->read(buffer_, in(0s)).kind, Kind::timedOut);  // the talk is gone
  shutdown(far_.get(), SHUT_WR);
  EXPECT_EQ(streams_->read(buffer_, in(1s)).kind, Kind::end);
  EXPECT_EQ(streams_->takeEnd().value().kind, Kind::end);
  connectAnew();
  const linger none{1, 0};
  setsockopt(far_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  far_.reset();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(streams_->takeEnd().value().error, std::errc::connection_reset);
  EXPECT_EQ(streams_->write(bytesOf("x"), in(1s)).kind, Kind::failed);
  EXPECT_EQ(streams_->write(bytesOf("x"), in(1s)).kind, Kind::failed);
}

}  // namespace
}  // namespace zk
