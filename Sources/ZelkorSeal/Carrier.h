#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/DatagramSocket.h"
#include "ZelkorSeal/KeptIn.h"
#include "ZelkorSeal/Names.h"
#include "ZelkorSeal/Seal.h"
#include "ZelkorSeal/TCPGate.h"

namespace zk {

/// What a seal's programs may reach, and how.
struct CarrierSettings {
  ProxyAccess proxy;
  std::optional<ProxyWay::Way> way;  // to the proxy, that has been seen to work
  std::vector<Endpoint> nameServers{Names::defaultServers.begin(), Names::defaultServers.end()};
  /// Private addresses (RFC 1918, RFC 6598) are carried as well: the proxy is the way into their
  /// network.
  bool carriesPrivate = false;
  LogCallback log;  // a line for what is refused and for each connection
};

/// Carries what leaves a seal: TCP and names through the proxy. All else stays in, is answered with
/// ICMP and counted. The loop's thread.
class Carrier final : EventLoop::Source {
 public:
  /// `loop` outlives this. Ignores SIGPIPE. Throws std::system_error.
  Carrier(EventLoop& loop, SealDescriptors seal, CarrierSettings settings);
  ~Carrier();
  Carrier(const Carrier&) = delete;
  Carrier& operator=(const Carrier&) = delete;

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
  void take(std::span<std::uint8_t> octets);
  void takeName(const Packet& packet);
  std::optional<KeptIn::Kind> reasonToKeep(const Packet& packet) const;
  void keep(const Packet& packet, KeptIn::Kind why);
  void write(ByteView packet) const;

  EventLoop& loop_;
  const CarrierSettings settings_;
  const Descriptor tun_;
  Bytes buffer_;
  KeptIn keptIn_;
  ProxyWay way_;
  Names names_;
  TCPGate gate_;
  std::vector<std::unique_ptr<NameSocket>> nameSockets_;
};

}  // namespace zk
