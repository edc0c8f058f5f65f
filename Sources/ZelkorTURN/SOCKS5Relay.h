#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <netinet/in.h>

#include "Base/LogLine.h"
#include "Platform/DatagramSocket.h"
#include "Platform/EventLoop.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// What all relays through one proxy have in common.
struct SOCKS5RelaySettings {
  std::string proxyHost;
  std::int64_t proxyPort = 0;
  std::optional<std::string> username;  // credentials are offered when both are present
  std::optional<std::string> password;
  /// Tell clients the port that a STUN server saw rather than the one that the proxy assigned.
  bool reportsMappedPort = false;
  LogCallback dataPlaneLog;  // a line or two for every datagram
  LogCallback egressLog;     // the steps of the search for the egress address
};

/// The relay behind one allocation: a control connection with its UDP association, and a UDP socket
/// through which every peer datagram travels wrapped to and from the proxy. Its public face is the
/// proxy's egress address.
class SOCKS5Relay final : public TURNRelay {
 public:
  /// What the system does not take at once waits: so much of it at most, in octets, and so long. A
  /// key frame into a thin uplink fits; what is older is of no use to a call.
  static constexpr std::size_t maxBacklog = 1 << 20;
  static constexpr std::chrono::milliseconds maxAge{300};
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
  /// A relay whose interface has lost its route to the proxy sends nothing until it is back: the
  /// system would ask the local network for the proxy, and send to whoever answered.
  void onRouteChange(const RouteCheck& hasRoute) override;
  bool isCutOff() const override { return isCutOff_; }
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
  // A datagram that waits for room in the socket.
  struct Waiting {
    Bytes payload;
    std::string peerIP;
    std::uint16_t peerPort;
    std::uint64_t since;  // nanoseconds of the loop's clock
  };

  void receiveBurst();
  void controlIsReadable();
  void lookForSilence();

  std::size_t sendBurst(std::span<const PeerDatagram> burst);
  void keep(const PeerDatagram& datagram);
  void sendBacklog();
  void logSend(const PeerDatagram& datagram, std::ptrdiff_t sent) const;
  void startTimer(std::optional<EventLoop::TimerID>& timer, std::chrono::nanoseconds delay,
                  void (SOCKS5Relay::*operation)());

  const std::shared_ptr<const SOCKS5RelaySettings> settings_;
  std::unique_ptr<SOCKS5Control> control_;  // present while the relay is open
  DatagramSocket socket_;                   // likewise
  sockaddr_in relayAddr_{};                 // where every datagram goes: the proxy's UDP relay
  std::optional<unsigned> interface_;       // that socket_ is pinned to

  // From receive() on.
  std::optional<RelayLoop> loop_;
  RelayListener* listener_ = nullptr;
  Watch socketWatch_{*this, &SOCKS5Relay::receiveBurst};
  Watch controlWatch_{*this, &SOCKS5Relay::controlIsReadable};
  std::vector<PeerDatagram> burst_;

  std::deque<Waiting> backlog_;
  std::size_t backlogOctets_ = 0;
  std::optional<EventLoop::TimerID> backlogTimer_;

  bool isCutOff_ = false;      // interface_ has no route to relayAddr_
  bool hasEnded_ = false;      // the control connection has
  std::uint64_t heardAt_ = 0;  // since then; nanoseconds of the loop's clock
  std::optional<EventLoop::TimerID> silenceTimer_;
};

}  // namespace zk
