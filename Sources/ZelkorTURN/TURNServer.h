#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <netinet/in.h>

#include "Platform/Clock.h"
#include "Platform/Datagrams.h"
#include "Platform/LogCallback.h"
#include "Platform/Random.h"
#include "Platform/SerialQueue.h"
#include "ZelkorTURN/Allocation.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// start() on a server that runs or has been stopped.
class TURNServerError : public std::exception {
 public:
  static TURNServerError alreadyStartedOrStopped() { return {}; }
  const char* what() const noexcept override { return "alreadyStartedOrStopped"; }
};

/// A failed system call of start(): its errno value, and in what() a prefix that names the call and
/// the system's text.
class POSIXError : public std::exception {
 public:
  POSIXError(const std::string& prefix, int code);
  int code() const { return code_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  int code_;
  std::string description_;
};

/// The TURN service of local clients: UDP on 127.0.0.1, one relay per client.
///
/// A receive thread takes datagrams from the socket and submits them to the serial queue, which
/// does all protocol work, the opening of relays included, which blocks it. A client's data, in
/// either direction, is short work: while the queue is idle the receive thread does it in the
/// queue's stead. Started once, stopped once. Held by shared pointers: threads and queued work hold
/// the server weakly. Destruction does not close the socket, stop() does.
class TURNServer : public std::enable_shared_from_this<TURNServer> {
 public:
  /// Nanoseconds on a clock that only runs forward.
  using MonotonicClock = std::function<std::uint64_t()>;

  TURNServer(Credentials credentials, std::string realm,
             std::shared_ptr<TURNRelayFactory> relayFactory,
             MonotonicClock clock = coarseMonotonicNanoseconds);

  /// Where diagnostics go; set before start(). Called from the caller of start(), the receive
  /// thread and the serial queue, at the same time.
  LogCallback debugLog;

  /// Binds the socket and starts serving. Throws TURNServerError, POSIXError, or std::system_error
  /// when there is no thread or memory to be had; nothing is left open then.
  void start();

  /// Ends the receive thread, then closes every relay and the socket. Any number of times, from any
  /// thread but the receive thread and the serial queue.
  void stop();

  /// The UDP port that start() bound; 0 before.
  std::uint16_t boundPort() const { return boundPort_; }

 private:
  friend class PerClientRelayProxy;
  friend struct TURNServerAccess;  // fuzzing and tests reach the dispatch without the socket

  // What the two queues of datagrams may hold at most, in octets, each datagram counting for
  // queueOverhead more. Opening a relay blocks the serial queue for seconds; what a flood sends
  // meanwhile is dropped beyond this, as a socket's buffer would drop it.
  static constexpr std::size_t queueLimit = 32 << 20;
  static constexpr std::size_t queueOverhead = 256;

  // A datagram from a client.
  struct ClientDatagram {
    ByteView payload;
    FiveTuple client;
  };

  // Where a client's data goes; both present, or neither when it goes nowhere.
  struct Route {
    FiveTuple client;
    const Allocation* allocation = nullptr;
    TURNRelay* relay = nullptr;
  };

  // TURNServer.cpp: the socket, and the way onto the queue, on the receive threads.
  void recvLoop(DatagramReceiver& receiver);
  void submitFromClients(std::span<const ClientDatagram> burst);
  void deliverFromRelay(std::span<const PeerDatagram> burst, const FiveTuple& client);
  template <typename Datagram, typename Handler>
  void submit(std::span<const Datagram> burst, bool isShort, const Handler& handler);
  std::uint32_t now() const;
  void sendToClient(ByteView message, const FiveTuple& client) const;

  // TURNServerDispatch.cpp: from clients towards peers. On the serial queue. A burst is one
  // request, or has none.
  void dispatchAll(std::span<const ClientDatagram> burst);
  void dispatch(ByteView datagram, const FiveTuple& client);
  void handleSTUN(ByteView datagram, const FiveTuple& client);
  void handleSendIndication(TURNMessage message, const FiveTuple& client);
  void handleChannelData(ByteView datagram, const FiveTuple& client);
  const Route& routeOf(const FiveTuple& client);
  void sendGathered();

  // TURNServerRelays.cpp: relays, and from peers towards clients. On the serial queue.
  using Relay = std::shared_ptr<TURNRelay>;
  RelayedAddress allocateRelayForCurrentClient();
  std::pair<Relay, RelayedAddress> openRelay(const FiveTuple& client);
  void releaseUnusedRelays(const FiveTuple& client, bool allocated);
  void releaseRelay(const FiveTuple& client);
  void deliverFromRelayOnQueue(std::span<const PeerDatagram> burst, const FiveTuple& client);
  std::optional<Bytes> dataIndication(const PeerDatagram& datagram);

  const Credentials credentials_;
  const std::string realm_;
  const std::shared_ptr<TURNRelayFactory> relayFactory_;
  const MonotonicClock clock_;

  // Written by start() before there is a second thread.
  std::atomic<std::uint16_t> boundPort_{0};
  std::uint64_t startTime_ = 0;  // the origin of the server clock
  std::thread recvThread_;

  std::mutex stopFlag_;  // guards isStopped_, and serverFD_ where they go together
  bool isStopped_ = false;
  std::atomic<int> serverFD_{-1};  // -1 when there is none; read without the lock

  std::atomic<std::size_t> queuedOctets_{0};

  // Touched on the serial queue only, which is why none of it has a lock.
  std::unique_ptr<AllocationTable> allocationTable_;
  std::unordered_map<FiveTuple, Relay> relayMap_;
  // The client whose request the table is handling right now.
  std::optional<FiveTuple> currentAllocatingClient_;
  RandomPool transactionIDs_;
  // What the burst at hand has from one client so far, and its way. Nothing between bursts.
  std::optional<Route> route_;
  std::vector<PeerDatagram> gathered_;
  std::vector<TURNMessage> gatheredMessages_;  // which payloads may lie in

  // Last, so that it goes first: its pending work may still look at the rest.
  SerialQueue serialQ_{"zk.turn.server"};
};

}  // namespace zk
