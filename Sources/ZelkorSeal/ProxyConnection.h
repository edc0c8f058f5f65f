#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "Platform/TCPSocket.h"
#include "ZelkorSOCKS5/SOCKS5Handshake.h"
#include "ZelkorSeal/ProxyWay.h"

namespace zk {

/// The making of one connection through the proxy, without waiting: to the proxy, the handshake,
/// CONNECT (RFC 1928). It gets as far as it can before it is told where to. The loop's thread.
class ProxyConnection final : EventLoop::Source {
 public:
  /// Gets the connection when the reply is `succeeded`, and else none and the reason, in one line.
  /// May destroy this.
  using Done =
      std::function<void(TCPSocket socket, SOCKS5Request::Reply reply, std::string_view reason)>;

  /// One that is not told where to is closed after so long. No proxy we know waits less for a
  /// request (4 s are the least).
  static constexpr std::chrono::seconds spareLimit{3};

  /// All outlive this. The credentials are such as can be sent.
  ProxyConnection(EventLoop& loop, ProxyWay& way, const ProxyAccess& access);
  ~ProxyConnection();
  ProxyConnection(const ProxyConnection&) = delete;
  ProxyConnection& operator=(const ProxyConnection&) = delete;

  /// Not closed, and on the way that connections take now.
  bool isFit() const {
    return socket_ && way_.isSettled() && way_.known()->number == taken_.number;
  }
  /// Once. `done` is not called before this has returned.
  void connectTo(const Endpoint& to, Done done);

 private:
  void onReadable() override;
  void onWritable() override;
  void begin();
  void start();
  void expect(std::chrono::seconds within);
  void request();
  void say(ByteView octets);
  std::optional<ByteView> hear(std::size_t size);
  void converse();
  void fail(std::string_view reason,
            SOCKS5Request::Reply reply = SOCKS5Request::Reply::generalFailure);
  void failOnTheWay(std::string_view reason);
  void close();
  void conclude(TCPSocket socket, SOCKS5Request::Reply reply, std::string_view reason);

  EventLoop& loop_;
  ProxyWay& way_;
  const ProxyAccess& access_;
  std::optional<Endpoint> to_;
  Done done_;  // since it is known where to
  std::optional<SOCKS5Handshake> handshake_;
  std::optional<ProxyWay::Ticket> ticket_;
  ProxyWay::Way taken_;
  TCPSocket socket_;
  bool isConnected_ = false;  // to the proxy
  bool wasSpare_ = false;     // has waited for its request, and may have ended meanwhile
  EventLoop::TimerID limit_;
  Bytes answer_;  // what has come of it
};

}  // namespace zk
