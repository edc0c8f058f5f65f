#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "Loopback/KitSocket.h"
#include "Loopback/LoopThread.h"
#include "Loopback/SOCKS5Server.h"
#include "Support.h"
#include "System.h"
#include "ZelkorSeal/Carrier.h"
#include "ZelkorSeal/Network.h"
#include "ZelkorSeal/Steps.h"

namespace zk::test {

/// A network as a seal has it, without the rest of a seal, and sockets made in it: they stay there
/// whoever uses them.
class SealedNetwork {
 public:
  SealedNetwork() {
    std::promise<bool> made;
    thread_ = std::thread([this, &made] {
      const Descriptor home = enterNewNetwork();
      try {
        if (home) {
          descriptors_.emplace(makeSealNetwork());
        }
      } catch (const SealStepFailure& failure) {
        ADD_FAILURE() << failure.what << ": " << failure.error;
      }
      made.set_value(descriptors_.has_value());
      while (const auto work = next_.get_future().get()) {
        next_ = {};
        work();
      }
    });
    exists_ = made.get_future().get();
  }
  ~SealedNetwork() {
    next_.set_value(nullptr);
    thread_.join();
  }
  SealedNetwork(const SealedNetwork&) = delete;
  SealedNetwork& operator=(const SealedNetwork&) = delete;

  /// It takes privileges that not everybody has.
  explicit operator bool() const { return exists_; }
  /// Once.
  SealDescriptors takeDescriptors() { return std::move(descriptors_).value(); }

  /// A socket of a program in it; waits at most ten seconds for anything.
  Descriptor socket(int type) {
    std::promise<int> made;
    next_.set_value([&] { made.set_value(::socket(AF_INET, type | SOCK_CLOEXEC, 0)); });
    Descriptor socket(made.get_future().get());
    const timeval limit{10, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return socket;
  }

 private:
  std::optional<SealDescriptors> descriptors_;
  bool exists_ = false;
  std::promise<std::function<void()>> next_;
  std::thread thread_;
};

}  // namespace zk::test
