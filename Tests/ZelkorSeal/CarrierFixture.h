#pragma once

#include <atomic>
#include <cerrno>
#include <mutex>
#include <vector>

#include "Platform/Sockets.h"
#include "ZelkorSeal/SealedNetwork.h"

namespace zk::test {

/// A seal's network whose traffic a Carrier takes to the kit's proxy. What programs take for
/// addresses of the world are ports of this machine.
class CarrierTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!network_) {
      GTEST_SKIP() << "a network of its own takes privileges";
    }
  }
  void TearDown() override {
    thread_.sync([this] { carrier_.reset(); });
  }

  static Endpoint at(const char* ip, std::uint16_t port) { return loopback::endpointAt(ip, port); }

  /// By then the script and settings_ are as they are to be. The proxy's routes are asked on its
  /// own thread.
  void start() {
    proxy_.setScript(script_);
    settings_.proxy.host = "127.0.0.1";
    settings_.proxy.port = proxy_.port();
    settings_.log = [this](std::string_view line) {
      const std::lock_guard guard(lock_);
      lines_.emplace_back(line);
    };
    thread_.sync([this] {
      carrier_ = std::make_unique<Carrier>(thread_.loop(), network_.takeDescriptors(), settings_);
    });
  }

  /// A program's connection: the system's error number, 0 for none.
  static int connect(const Descriptor& socket, const Endpoint& to) {
    const sockaddr_in address = to.socketAddress();
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
               ? 0
               : errno;
  }
  int connectTo(const Endpoint& to) { return connect(network_.socket(SOCK_STREAM), to); }

  /// What comes until the end of the stream, or a note of how else it ended.
  static std::string readAll(int socket) {
    std::string all;
    std::array<char, 65536> buffer;
    while (true) {
      const ssize_t got = recv(socket, buffer.data(), buffer.size(), 0);
      if (got <= 0) {
        return got == 0 ? all : all + "<" + errorText(errno) + ">";
      }
      all.append(buffer.data(), static_cast<std::size_t>(got));
    }
  }
  static void say(int socket, std::string_view text) {
    EXPECT_EQ(::send(socket, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }

  /// So much time passes for the carrier at once.
  void pass(std::chrono::nanoseconds time) {
    ahead_ += static_cast<std::uint64_t>(time.count());
    thread_.sync([] {});
  }

  bool hasLine(const std::string& part) {
    const std::lock_guard guard(lock_);
    return std::any_of(lines_.begin(), lines_.end(), [&](const std::string& line) {
      return line.find(part) != std::string::npos;
    });
  }
  std::vector<std::string> keptIn() {
    return thread_.ask([this] { return carrier_->keptIn().sentences(); });
  }

  SealedNetwork network_;
  loopback::SOCKS5Script script_;
  loopback::SOCKS5Server proxy_;
  std::atomic<std::uint64_t> ahead_ = 0;  // nanoseconds
  loopback::LoopThread thread_{"test.carrier", [this] { return monotonicNanoseconds() + ahead_; }};
  CarrierSettings settings_;
  std::unique_ptr<Carrier> carrier_;
  std::mutex lock_;
  std::vector<std::string> lines_;
};

/// A listener of the far side, whose connections wait at most ten seconds for anything.
class FarListener {
 public:
  std::uint16_t port() const { return listener_.port(); }
  Endpoint endpoint() const { return loopback::localEndpoint(port()); }
  loopback::KitSocket accept() const {
    EXPECT_TRUE(loopback::waitReadable(listener_.get(), std::chrono::seconds(10)));
    auto socket = listener_.accepted();
    loopback::setBlocking(socket.get(), std::chrono::seconds(10));
    return socket;
  }

 private:
  const loopback::KitSocket listener_ = loopback::KitSocket::listener();
};

}  // namespace zk::test
