#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/DatagramSocket.h"
#include "ZelkorSeal/KeptIn.h"
#include "ZelkorSeal/Names.h"
#include "ZelkorSeal/Seal.h"
#include "ZelkorSeal/TCPGate.h"
#include "ZelkorSeal/UDPCarrier.h"

namespace zk {

/// What a seal's programs may reach, and how.
struct CarrierSettings {
  ProxyAccess proxy;
  std::optional<ProxyWay::Way> way;  // to the proxy, that has been seen to work
  std::vector<Endpoint> nameServers{Names::defaultServers.begin(), Names::defaultServers.end()};
  /// Private addresses (RFC 1918, RFC 6598) are carried as well: the proxy is the way into their
  /// network.
  bool carriesPrivate = false;
  /// QUIC is carried; else it is refused, and browsers take TCP, which a proxy carries better.
  bool carriesQUIC = false;
  std::shared_ptr<RelayOpener> opener;  // of relays for UDP; absent: UDPCarrier::proxyOpener()
  LogCallback log;                      // a line for what is refused and for each connection
  UDPCarrier::Tell tell;  // a sentence for people about the proxy, in the course of things
};

/// Carries what leaves a seal: TCP, UDP and names, through the proxy. All else stays in, is
/// answered with ICMP and counted. The loop's thread.
class Carrier final : EventLoop::Source {
 public:
  /// `loop` outlives this. Ignores SIGPIPE. Throws std::system_error.
  Carrier(EventLoop& loop, SealDescriptors seal, CarrierSettings settings);
  ~Carrier();
  Carrier(const Carrier&) = delete;
  Carrier& operator=(const Carrier&) = delete;

  /// A number that grows while what programs have said is on its way to the proxy; absent when
  /// nothing is.
  std::optional<std::uint64_t> passingOn() const {
    const auto octets = gate_.passingOn();
    return udp_.isPassingOn() ? octets.value_or(0) : octets;
  }
  const KeptIn& keptIn() const { return keptIn_; }

 private:
  // A socket that names are asked at by way of the loopback.
  class NameSocket final : public EventLoop::Source {
   public:
    NameSocket(Carrier& carrier, Descriptor socket, bool isTCP);
    ~NameSocket();
    void onReadable() override;

   private:
    Carrier& carrier_;
    const Descriptor socket_;
    const bool isTCP_;
  };

  void onReadable() override;
  bool take(std::span<std::uint8_t> octets, PeerBatch& batch);
  std::optional<KeptIn::Kind> reasonToKeep(const Packet& packet) const;
  void keep(const Packet& packet, KeptIn::Kind why);

  EventLoop& loop_;
  const CarrierSettings settings_;
  const Tun tun_;
  const std::unique_ptr<std::uint8_t[]> buffer_;  // of a burst
  KeptIn keptIn_;
  ProxyConnector connector_;
  Names names_;
  TCPGate gate_;
  UDPCarrier udp_;
  std::vector<std::unique_ptr<NameSocket>> nameSockets_;
};

}  // namespace zk
