#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "Platform/TCPSocket.h"
#include "ZelkorSOCKS5/SOCKS5Handshake.h"
#include "ZelkorSeal/ProxyWay.h"

namespace zk {

/// The making of one connection through the proxy, without waiting: to the proxy, the handshake,
/// CONNECT (RFC 1928). The loop's thread.
class ProxyConnection final : EventLoop::Source {
 public:
  /// Gets the connection when the reply is `succeeded`, and else none and the reason, in one line.
  /// May destroy this.
  using Done =
      std::function<void(TCPSocket socket, SOCKS5Request::Reply reply, std::string_view reason)>;

  /// All but `to` outlive this. The credentials are such as can be sent. `done` is not called
  /// before this has returned.
  ProxyConnection(EventLoop& loop, ProxyWay& way, const ProxyAccess& access, const Endpoint& to,
                  Done done);
  ~ProxyConnection();
  ProxyConnection(const ProxyConnection&) = delete;
  ProxyConnection& operator=(const ProxyConnection&) = delete;

 private:
  void onReadable() override;
  void onWritable() override;
  void start();
  void say(ByteView octets);
  std::optional<ByteView> hear(std::size_t size);
  void converse();
  void fail(std::string_view reason, SOCKS5Request::Reply reply);
  void conclude(TCPSocket socket, SOCKS5Request::Reply reply, std::string_view reason);

  EventLoop& loop_;
  ProxyWay& way_;
  const Endpoint to_;
  Done done_;
  SOCKS5Handshake handshake_;
  std::optional<ProxyWay::Ticket> ticket_;
  ProxyWay::Way taken_;
  TCPSocket socket_;
  EventLoop::TimerID limit_;
  Bytes answer_;  // what has come of it
};

}  // namespace zk
