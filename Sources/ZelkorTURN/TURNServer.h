#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Base/LogLine.h"
#include "Platform/Clock.h"
#include "Platform/DatagramSocket.h"
#include "Platform/EventLoop.h"
#include "Platform/Interfaces.h"
#include "Platform/Random.h"
#include "ZelkorTURN/Allocation.h"
#include "ZelkorTURN/RelayInterfaces.h"
#include "ZelkorTURN/RelayOpener.h"

namespace zk {

/// start() on a server that runs or has been stopped.
class TURNServerError : public std::exception {
 public:
  static TURNServerError alreadyStartedOrStopped() { return {}; }
  const char* what() const noexcept override { return "alreadyStartedOrStopped"; }
};

/// The TURN service of local clients: UDP on 127.0.0.1, one relay per client.
///
/// One thread, the loop's, owns everything in here and waits for nothing but events. Only the
/// opening of relays happens elsewhere (RelayOpener); its outcome is posted to the loop, and what
/// the client sends meanwhile waits for it. Started once, stopped once.
class TURNServer final : EventLoop::Source {
 public:
  /// What a client may send while its relay is being opened; the rest is dropped.
  static constexpr std::size_t maxKeptDatagrams = 64;
  static constexpr std::size_t maxKeptOctets = 64 << 10;

  /// `acceptFingerprint`: see TURNAuth::verifyMessageIntegrity(). `clock`: what counts the seconds
  /// of allocations and nonces, and the loop's timers.
  TURNServer(Credentials credentials, std::string realm,
             std::shared_ptr<TURNRelayFactory> relayFactory, bool acceptFingerprint = false,
             EventLoop::Clock clock = monotonicNanoseconds);
  /// Stops.
  ~TURNServer();

  /// Where diagnostics go; set before start(). Called by the caller of start(), the loop and the
  /// openings, at the same time.
  LogCallback debugLog;

  /// Binds the socket and starts serving. Throws TURNServerError, or std::system_error or
  /// std::runtime_error when something is not to be had, with "socket: " or "bind: " in front
  /// where it is that; nothing is left open then.
  void start();

  /// Ends the loop, abandons openings, closes every relay and the socket. Waits for nobody. Any
  /// number of times, from the thread that started it.
  void stop();

  /// The UDP port that start() bound; 0 before.
  std::uint16_t boundPort() const { return boundPort_; }

 private:
  friend struct TURNServerAccess;  // the fuzzer drives the loop itself, on a clock of its own

  // Tells the relays when the machine's routes change.
  class Routes final : public EventLoop::Source {
   public:
    explicit Routes(TURNServer& server) : server_(server) {}
    int descriptor() const { return watch_.descriptor(); }
    Interfaces& look() { return look_; }
    void onReadable() override;

   private:
    TURNServer& server_;
    RouteWatch watch_;
    Interfaces look_;
  };
  // A client's relay, and what the datagrams at hand have for it.
  struct ClientRelay final : RelayListener {
    ClientRelay(TURNServer& owner, const FiveTuple& whose, std::shared_ptr<TURNRelay> opened);
    ~ClientRelay() { relay->close(); }
    void onDatagrams(std::span<const PeerDatagram> datagrams) override;
    void onAssociationEnd(std::string_view reason) override;
    void onSilence() override;
    bool isReleased() const;

    TURNServer& server;
    const FiveTuple client;
    const sockaddr_in clientAddress;
    const std::shared_ptr<TURNRelay> relay;
    std::vector<PeerDatagram> outgoing;
  };
  // A client whose relay is being opened, and what it has sent since.
  struct Opening {
    PendingAllocate allocate;
    std::deque<Bytes> kept;
    std::size_t keptOctets = 0;
  };
  // Where a client's data goes; both present, or neither when it goes nowhere.
  struct Route {
    FiveTuple client;
    const Allocation* allocation = nullptr;
    ClientRelay* relay = nullptr;
  };

  void prepare();
  std::uint32_t now() const;

  // From clients.
  void onReadable() override;
  void dispatch(ByteView datagram, const FiveTuple& client);
  void handleSTUN(ByteView datagram, const FiveTuple& client);
  void handleSendIndication(TURNMessage message, const FiveTuple& client);
  void handleChannelData(ByteView datagram, const FiveTuple& client);
  const Route& routeOf(const FiveTuple& client);
  void gather(ClientRelay& relay, ByteView payload, std::string peerIP, std::uint16_t peerPort);
  void sendGathered();
  void answer(const TURNMessage& message, const FiveTuple& client);

  // Relays.
  void openRelay(const PendingAllocate& allocate);
  void keep(Opening& opening, ByteView datagram);
  void concludeOpening(const FiveTuple& client, std::optional<RelayOpener::Opened> opened);
  void releaseRelay(const FiveTuple& client);
  void sweep();
  void sweepRegularly();

  // To clients.
  void deliverFromRelay(std::span<const PeerDatagram> datagrams, const ClientRelay& relay);
  std::optional<TURNMessage> dataIndication(const PeerDatagram& datagram);
  void sendToClient(ByteView header, ByteView rest, const sockaddr_in& client);
  void sendOutbox();

  const Credentials credentials_;
  const std::string realm_;
  const std::shared_ptr<TURNRelayFactory> relayFactory_;
  const bool acceptFingerprint_;
  const EventLoop::Clock clock_;

  bool isStopped_ = false;
  std::uint16_t boundPort_ = 0;
  std::uint64_t startTime_ = 0;  // the origin of the server clock
  std::thread thread_;

  // The loop's thread's, as soon as there is one.
  std::optional<EventLoop> loop_;
  DatagramSocket socket_;
  std::optional<AllocationTable> allocationTable_;
  std::unordered_map<FiveTuple, std::unique_ptr<ClientRelay>> relayMap_;
  std::vector<std::unique_ptr<ClientRelay>> cutOff_;  // released, until they may be closed
  std::unordered_map<FiveTuple, Opening> openings_;
  RandomPool transactionIDs_;
  std::optional<Routes> routes_;

  // Bursts: what is received, on its way to a proxy, and on its way to clients.
  std::optional<DatagramReceiver> receiver_;
  DatagramSender relaySender_;
  DatagramSender clientSender_;
  // What the datagrams at hand have come to so far. Nothing between bursts.
  std::optional<Route> route_;
  std::vector<ClientRelay*> gathered_;         // those with something outgoing
  std::vector<TURNMessage> gatheredMessages_;  // which payloads may lie in
  // What clientSender_ is to send at the end of the round. Slots keep their room.
  std::array<Bytes, maxBurst> outbox_;

  std::optional<RelayOpener> opener_;  // last, so that it goes first
};

}  // namespace zk
