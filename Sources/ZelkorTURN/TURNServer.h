#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Base/LogLine.h"
#include "Platform/Clock.h"
#include "Platform/DatagramSocket.h"
#include "Platform/EventLoop.h"
#include "ZelkorTURN/AllocationTable.h"
#include "ZelkorTURN/ClientOutbox.h"
#include "ZelkorTURN/Clients.h"
#include "ZelkorTURN/PeerBatch.h"
#include "ZelkorTURN/RelayLifetime.h"
#include "ZelkorTURN/RelayOpener.h"
#include "ZelkorTURN/StrangerRation.h"

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
class TURNServer final : EventLoop::Source, ClientEvents {
 public:
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
  enum class Release { refreshed, expired, silent, cutOff, notOpened };

  void prepare();
  std::uint64_t sinceStart() const { return clock_() - startTime_; }
  std::uint32_t now() const;

  // From clients.
  void onReadable() override;
  void dispatch(ByteView datagram, const Endpoint& from, PeerBatch& batch);
  bool isAdmitted(const Endpoint& stranger);
  void handleSTUN(ByteView datagram, const Endpoint& from, Client* client, PeerBatch& batch);
  void handleSendIndication(const TURNMessageView& message, Client& client, PeerBatch& batch);
  void handleChannelData(ByteView datagram, Client& client, PeerBatch& batch);
  void answer(const TURNMessage& message, const Endpoint& to);

  // Relays.
  void openRelay(const PendingAllocate& allocate);
  void concludeOpening(const Endpoint& client, std::optional<RelayOpener::Opened> opened);
  void release(Client& client, Release why);
  void sweep();
  void sweepRegularly();

  // From relays.
  void onDatagrams(Client& client, std::span<const ReceivedDatagram> datagrams) override;
  void onAssociationEnd(Client& client, std::string_view reason) override;
  void onLoss(Client& client, RelayListener::Loss loss) override;
  void endRound();

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
  std::string lineRoom_;
  LineBatch lines_{debugLog, lineRoom_};  // of the round at hand
  std::string relayLineRoom_;
  std::optional<EventLoop> loop_;
  DatagramSocket socket_;
  std::optional<DatagramReceiver> receiver_;
  DatagramSender relaySender_;
  ClientOutbox outbox_{socket_};
  std::optional<AllocationTable> allocationTable_;
  StrangerRation ration_;
  std::uint64_t strangersDropped_ = 0;  // since the last line about them
  std::optional<RelayLifetime> lifetime_;
  Clients clients_;

  std::optional<RelayOpener> opener_;  // last, so that it goes first
};

}  // namespace zk
