#include "ZelkorSOCKS5/ProxyProbe.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

#include "Platform/IPv4.h"
#include "Platform/Semaphore.h"
#include "Platform/Thread.h"
#include "Platform/UDPConnection.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {
namespace {

// One sendSTUN() call. Handlers hold it; whichever ends it first wins.
class Transaction : public std::enable_shared_from_this<Transaction> {
 public:
  Transaction(const std::string& relayHost, std::uint16_t relayPort)
      : queue_(std::make_shared<SerialQueue>("zk.helper.relay")),
        connection_(relayHost, relayPort) {}

  std::future<std::string> begin(Bytes frame, Bytes txID, double timeout) {
    auto result = result_.get_future();
    connection_.start(queue_, [self = shared_from_this(), frame = std::move(frame),
                               txID = std::move(txID)](auto state, const auto& error) {
      if (state == UDPConnection::State::failed) {
        self->fail(SOCKS5Error::connectionFailed("relay failed: " + error.value_or("")));
      } else {
        self->send(frame, txID);
      }
    });
    // The time limit needs a thread that waits, since the queue has no timers. It ends with the
    // transaction, not with the limit.
    startThread("zk.helper.limit", [self = shared_from_this(), timeout] {
      const auto limit = std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::duration<double>(timeout));
      if (!self->ended_.waitFor(limit)) {
        self->queue_->async([self] { self->fail(SOCKS5Error::stunTimeout()); });
      }
    }).detach();
    return result;
  }

 private:
  void send(const Bytes& frame, const Bytes& txID) {
    connection_.send(frame, [self = shared_from_this(), txID](const auto& error) {
      if (error) {
        self->fail(SOCKS5Error::connectionFailed("UDP send: " + *error));
        return;
      }
      self->connection_.receive([self, txID](const auto& data, const auto& failure) {
        self->received(data, failure, txID);
      });
    });
  }

  void received(const std::optional<Bytes>& data, const UDPConnection::Error& error,
                const Bytes& txID) {
    if (error) {
      fail(SOCKS5Error::connectionFailed("UDP recv: " + *error));
      return;
    }
    const auto unwrapped = data ? SOCKS5UDPFrame::unwrap(*data) : std::nullopt;
    const auto mapped =
        unwrapped ? STUN::parseXorMappedAddress(unwrapped->payload, txID) : std::nullopt;
    if (mapped) {
      end([&] { result_.set_value(*mapped); });
    } else {
      fail(SOCKS5Error::stunMalformed());
    }
  }

  void fail(const SOCKS5Error& error) {
    end([&] { result_.set_exception(std::make_exception_ptr(error)); });
  }

  void end(const std::function<void()>& deliver) {
    {
      const std::lock_guard guard(lock_);
      if (resumed_) {
        return;
      }
      resumed_ = true;
    }
    connection_.cancel();
    ended_.signal();
    deliver();
  }

  const std::shared_ptr<SerialQueue> queue_;
  UDPConnection connection_;
  std::promise<std::string> result_;
  Semaphore ended_;
  std::mutex lock_;
  bool resumed_ = false;  // guarded by lock_
};

}  // namespace

std::future<std::string> ProbeRelay::sendSTUN(const std::string& relayHost, std::uint16_t relayPort,
                                              ByteView stunIP, std::uint16_t stunPort,
                                              double timeout) {
  const STUN::BindingRequest binding = STUN::makeBindingRequest();
  return std::make_shared<Transaction>(relayHost, relayPort)
      ->begin(SOCKS5UDPFrame::wrap(binding.request, formatIPv4(stunIP.data()), stunPort),
              Bytes(binding.txID.begin(), binding.txID.end()), timeout);
}

std::future<SOCKS5Probe::Outcome> SOCKS5Probe::probe(std::string host, std::int64_t port,
                                                     std::optional<std::string> username,
                                                     std::optional<std::string> password,
                                                     Bytes stunIP, std::uint16_t stunPort,
                                                     double timeout) {
  return std::async(std::launch::async, [=]() -> Outcome {
    try {
      SOCKS5Control control(host, port, username, password, timeout);
      control.connect();
      const auto relay = control.performHandshakeAndUDPAssociate();
      const std::string egress =
          ProbeRelay::sendSTUN(relay.relayHost, relay.relayPort, stunIP, stunPort, timeout).get();
      return {true, egress, std::nullopt};
    } catch (const std::exception& error) {
      return {false, std::nullopt, error.what()};
    }
  });
}

}  // namespace zk
