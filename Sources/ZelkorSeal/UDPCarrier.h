#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "ZelkorSeal/KeptIn.h"
#include "ZelkorSeal/Packet.h"
#include "ZelkorSeal/ProxyWay.h"
#include "ZelkorSeal/Tun.h"
#include "ZelkorTURN/PeerBatch.h"
#include "ZelkorTURN/RelayLifetime.h"
#include "ZelkorTURN/RelayOpener.h"

namespace zk {

/// Carries the datagrams of a seal's programs: each local port has one relay at the proxy, whoever
/// it sends to, so that all its peers see the same address (RFC 4787, REQ-1). The loop's thread.
class UDPCarrier {
 public:
  /// So many ports have a relay at once; then the one idle longest loses its own. So many more wait
  /// for one; then the one that has waited longest fails.
  static constexpr std::size_t maxRelays = 256;
  static constexpr std::size_t maxWaiting = 256;
  /// A relay through which nothing has come for so long goes (RFC 4787, REQ-5).
  static constexpr std::chrono::seconds maxIdle{120};
  /// A port whose opening has failed is told so until this has passed, and then it is tried anew.
  static constexpr std::chrono::seconds pause{5};
  /// What a port sends before it has a relay waits for it.
  static constexpr std::size_t maxKept = 64;
  static constexpr std::size_t maxKeptOctets = std::size_t{64} << 10;
  /// Takes a sentence for people.
  using Tell = std::function<void(std::string_view sentence)>;

  /// All references outlive this. `opener`, which nobody else uses, opens its relays, see
  /// proxyOpener(); `tell` may be absent. Throws std::system_error.
  UDPCarrier(EventLoop& loop, std::shared_ptr<RelayOpener> opener, const Tun& tun, KeptIn& keptIn,
             LogCallback log, Tell tell);
  ~UDPCarrier();
  UDPCarrier(const UDPCarrier&) = delete;
  UDPCarrier& operator=(const UDPCarrier&) = delete;

  /// What opens relays at a proxy, without looking for the address that peers see.
  static std::shared_ptr<RelayOpener> proxyOpener(const ProxyAccess& access, LogCallback log);

  /// A datagram of a program, whose octets live until `batch` has been sent.
  void take(const Packet& packet, PeerBatch& batch);
  /// Whether datagrams of a program wait for their relay.
  bool isPassingOn() const { return opening_ > 0 || !waiting_.empty(); }

 private:
  struct Port final : RelayListener {
    enum class State { waiting, opening, open, failed };

    Port(UDPCarrier& owner, const Endpoint& whose) : carrier(owner), program(whose) {}
    void onDatagrams(std::span<const ReceivedDatagram> datagrams) override {
      carrier.deliver(*this, datagrams);
    }
    void onAssociationEnd(std::string_view reason) override;
    void onLoss(Loss) override { carrier.remove(*this); }

    UDPCarrier& carrier;
    const Endpoint program;
    State state = State::waiting;
    std::shared_ptr<TURNRelay> relay;  // while it is open
    std::deque<Bytes> kept;            // packets, until then
    std::size_t keptOctets = 0;
    std::uint64_t usedAt = 0;  // or failed, nanoseconds of the loop's clock
  };
  void keep(Port& port, const Packet& packet);
  void open(Port& port);
  void startOpenings();
  void onOpened(const Endpoint& program, std::shared_ptr<TURNRelay> relay);
  void sendKept(Port& port);
  void fail(Port& port);
  void refuse(const Packet& packet) const;
  void deliver(Port& port, std::span<const ReceivedDatagram> datagrams);
  void remove(const Port& port);
  void makeRoom();
  void sweep();

  EventLoop& loop_;
  const Tun& tun_;
  KeptIn& keptIn_;
  const LogCallback log_;
  Tell tell_;

  DatagramReceiver receiver_;
  DatagramSender sender_;
  std::string lineRoom_;
  std::unordered_map<std::uint16_t, std::shared_ptr<Port>> ports_;
  std::deque<std::uint16_t> waiting_;
  std::size_t opening_ = 0;
  std::size_t open_ = 0;
  EventLoop::TimerID sweepTimer_;
  const std::shared_ptr<UDPCarrier*> self_ = std::make_shared<UDPCarrier*>(this);  // for tasks
  RelayLifetime lifetime_;
  const std::shared_ptr<RelayOpener> opener_;
};

}  // namespace zk
