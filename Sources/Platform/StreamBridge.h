#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "Platform/EventLoop.h"
#include "Platform/TCPSocket.h"

namespace zk {

/// Conduits that are empty, for whoever has something to move. One thread.
class ConduitPool {
 public:
  /// Throws std::system_error.
  std::unique_ptr<Conduit> take();
  void give(std::unique_ptr<Conduit> conduit);

 private:
  std::vector<std::unique_ptr<Conduit>> idle_;
};

/// Joins two connections: what one end says the other hears, its end and its reset included. A
/// connection that is quiet costs no memory beyond its sockets. The loop's thread.
class StreamBridge {
 public:
  /// How it ended, when both directions have or one socket failed, with everything closed. May
  /// destroy the bridge.
  using Ended = std::function<void(bool wasReset)>;

  /// Both are connected. `loop` and `conduits` outlive this. Throws std::system_error.
  StreamBridge(EventLoop& loop, ConduitPool& conduits, TCPSocket near, TCPSocket far, Ended ended);
  /// Resets both, unless the far end has been told all; the system sees to it that it arrives.
  ~StreamBridge();
  StreamBridge(const StreamBridge&) = delete;
  StreamBridge& operator=(const StreamBridge&) = delete;

  /// Whether all that the near end will ever have said has been said to the far one.
  bool hasPassedOn() const { return near_.isToldOn; }
  /// What the other socket has taken.
  std::uint64_t octetsToFar() const { return near_.octets; }
  std::uint64_t octetsToNear() const { return far_.octets; }

 private:
  // One socket, and the direction that begins there.
  struct End final : EventLoop::Source {
    End(StreamBridge& owner, TCPSocket connected) : bridge(owner), socket(std::move(connected)) {}
    void onReadable() override { hasEnded ? bridge.close(true) : bridge.move(*this); }
    void onWritable() override { bridge.move(bridge.otherThan(*this)); }
    std::size_t held() const { return conduit ? conduit->held() : 0; }

    StreamBridge& bridge;
    TCPSocket socket;
    std::unique_ptr<Conduit> conduit;  // while something is on its way
    bool hasEnded = false;             // nothing more comes from the socket
    bool isToldOn = false;             // and the other has heard of it
    std::uint64_t octets = 0;
  };

  End& otherThan(const End& end) { return &end == &near_ ? far_ : near_; }
  void move(End& from);
  bool transfer(End& from, End& to);
  void updateInterest(End& end);
  void close(bool wasReset);
  void release(bool wasReset);

  EventLoop& loop_;
  ConduitPool& conduits_;
  End near_;
  End far_;
  Ended ended_;
};

}  // namespace zk
