#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>

#include "Base/LogLine.h"
#include "Platform/StreamBridge.h"
#include "ZelkorSeal/FlowTable.h"
#include "ZelkorSeal/ProxyConnector.h"
#include "ZelkorSeal/Tun.h"

namespace zk {

/// Carries the TCP connections of a seal's programs, whose own system ends them: what a program
/// sends to D:d is written back into the tun as coming from the gateway's G:n to the listener, and
/// what the listener answers as coming from D:d. G:n is the number of the connection, and what
/// accepting it tells. The loop's thread.
///
/// The SYN goes in once the proxy has connected, so that a program sees the true outcome.
class TCPGate final : EventLoop::Source {
 public:
  /// So many at once; what comes on top is refused with a RST.
  static constexpr std::size_t maxConnections = 1000;
  /// A connection that nobody accepts within this is over.
  static constexpr std::chrono::seconds acceptLimit{10};
  /// All references outlive this. `log` gets a line for each connection's beginning and end. Throws
  /// std::system_error.
  TCPGate(EventLoop& loop, ProxyConnector& connector, Descriptor listener, const Tun& tun,
          LogCallback log);
  ~TCPGate();
  TCPGate(const TCPGate&) = delete;
  TCPGate& operator=(const TCPGate&) = delete;

  /// A segment of a program, of which only those without SYN may go to anywhere. A connection that
  /// it begins goes to `target`.
  void takeFromProgram(Packet& segment, const Endpoint& target);
  /// A segment of the listener.
  void takeFromListener(Packet& segment);
  /// A connection of a program that did not come by the tun.
  void carry(TCPSocket program, const Endpoint& target);
  /// How much of what programs have said has reached the proxy's connections that still wait for
  /// more of it; absent when none does.
  std::optional<std::uint64_t> passingOn() const;

 private:
  struct Connection {
    std::optional<Endpoint> number;  // of its flow, for those that came by the tun
    Endpoint target;
    Bytes syn;                                 // until it goes in
    std::unique_ptr<ProxyConnection> opening;  // then one of these after the other
    TCPSocket proxy;                           // until the program's end has been accepted
    std::unique_ptr<StreamBridge> bridge;
    TCPSocket program;  // while opening, of those that did not come by the tun
    std::optional<EventLoop::TimerID> limit;
  };

  void onReadable() override;
  std::uint64_t open(const Endpoint& target);
  void onOpened(std::uint64_t id, TCPSocket socket, SOCKS5Request::Reply reply,
                std::string_view reason);
  void refuse(Connection& connection, SOCKS5Request::Reply reply);
  void join(std::uint64_t id, TCPSocket program);
  void giveUp(std::uint64_t id);
  void forget(const Flow& flow);
  void forward(Flow& flow, Packet& segment, FlowTable::Side from);
  void answerStray(const Packet& segment);
  Connection* connectionOf(const Flow& flow);
  void sweep();

  EventLoop& loop_;
  ProxyConnector& connector_;
  const Descriptor listener_;
  const Tun& tun_;
  const LogCallback log_;
  FlowTable flows_;
  ConduitPool conduits_;
  std::unordered_map<std::uint64_t, Connection> connections_;
  std::uint64_t made_ = 0;
  EventLoop::TimerID sweepTimer_;
  std::optional<EventLoop::TimerID> acceptTimer_;  // while there are no descriptors to accept with
};

}  // namespace zk
