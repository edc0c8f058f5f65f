#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Base/LogLine.h"
#include "Platform/DatagramSocket.h"
#include "Platform/EventLoop.h"
#include "ZelkorSOCKS5/Association.h"
#include "ZelkorTURN/RelayInterfaces.h"
#include "ZelkorTURN/SendBacklog.h"

namespace zk {

/// What all relays through one proxy have in common.
struct SOCKS5RelaySettings {
  SOCKS5Proxy proxy;
  /// Tell clients the port that a STUN server saw rather than the one that the proxy assigned.
  bool reportsMappedPort = false;
  /// Find out under which address peers see a relay, which takes a round trip or more. Where nobody
  /// is told one, it is 0.0.0.0.
  bool findsEgress = true;
  /// By the default route and no other way, whatever the attempt says.
  bool viaDefault = false;
  LogCallback dataPlaneLog;  // a line or two for every datagram
  LogCallback egressLog;     // the steps of the search for the egress address
};

/// The relay behind one allocation: a UDP association with the proxy, through which every peer
/// datagram travels wrapped. Its public face is the proxy's egress address.
class SOCKS5Relay final : public TURNRelay {
 public:
  /// Once the control connection has ended, a relay through which nothing comes for so long goes.
  static constexpr std::chrono::seconds maxSilence{5};

  /// No I/O. `settings` is shared by the relays of a factory.
  explicit SOCKS5Relay(std::shared_ptr<const SOCKS5RelaySettings> settings);
  ~SOCKS5Relay() override { close(); }

  /// Connects, asks for the association and finds the egress address. Blocks meanwhile. Returns
  /// that address with the relay's port. Throws SOCKS5Error, with everything released, and with a
  /// relay that was open already left as it is.
  RelayedAddress open(const OpeningAttempt& attempt);

  RelayedAddress allocateRelay(const OpeningAttempt& attempt) override { return open(attempt); }
  /// Does nothing unless the relay is open and receiving.
  void sendAll(std::span<const PeerDatagram> datagrams) override;
  /// Does nothing unless the relay is open.
  void receive(const RelayLoop& loop, RelayListener& listener) override;
  RelayWay way() const override;
  void setCutOff(bool isCutOff) override;
  bool isCutOff() const override { return isCutOff_; }
  void retire() override;
  void close() override;

 private:
  // Calls one operation of the relay when a descriptor of it is readable.
  class Watch final : public EventLoop::Source {
   public:
    Watch(SOCKS5Relay& relay, void (SOCKS5Relay::*operation)())
        : relay_(relay), operation_(operation) {}
    void onReadable() override { (relay_.*operation_)(); }

   private:
    SOCKS5Relay& relay_;
    void (SOCKS5Relay::*operation_)();
  };

  void receiveBurst();
  void controlIsReadable();
  void lookForSilence();

  std::size_t sendBurst(std::span<const PeerDatagram> burst, LineBatch& lines);
  void keep(const PeerDatagram& datagram, LineBatch& lines);
  void sendBacklog();
  void logSend(const PeerDatagram& datagram, std::ptrdiff_t sent, LineBatch& lines) const;
  LineBatch lineBatch() const { return {settings_->dataPlaneLog, loop_->lineRoom}; }
  void startTimer(std::optional<EventLoop::TimerID>& timer, std::chrono::nanoseconds delay,
                  void (SOCKS5Relay::*operation)());
  void stopWatching();

  const std::shared_ptr<const SOCKS5RelaySettings> settings_;
  std::optional<Association> association_;  // present while the relay is open

  // From receive() to retire() or close().
  std::optional<RelayLoop> loop_;
  RelayListener* listener_ = nullptr;
  Watch socketWatch_{*this, &SOCKS5Relay::receiveBurst};
  Watch controlWatch_{*this, &SOCKS5Relay::controlIsReadable};

  std::unique_ptr<SendBacklog> backlog_;  // present while something waits in it
  std::optional<EventLoop::TimerID> backlogTimer_;

  bool isCutOff_ = false;
  bool hasEnded_ = false;      // the control connection has
  std::uint64_t heardAt_ = 0;  // since then; nanoseconds of the loop's clock
  std::optional<EventLoop::TimerID> silenceTimer_;
};

}  // namespace zk
