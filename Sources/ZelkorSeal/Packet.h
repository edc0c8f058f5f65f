#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"

namespace zk {

/// One IPv4 packet (RFC 791) in octets that somebody else owns, as far as it is needed to carry TCP
/// (RFC 9293) and UDP (RFC 768). Pure.
class Packet {
 public:
  static constexpr std::size_t ipv4HeaderSize = 20;
  static constexpr std::size_t tcpHeaderSize = 20;  // without options
  static constexpr std::size_t udpHeaderSize = 8;
  static constexpr std::uint16_t tcpChecksumAt = 16;  // in its header
  enum Protocol : std::uint8_t { icmp = 1, tcp = 6, udp = 17 };
  enum Flag : std::uint8_t { fin = 0x01, syn = 0x02, rst = 0x04, ack = 0x10 };

  /// What stands at the front of `octets`. Absent unless it is all there, in one piece, without IP
  /// options, its IP checksum is right, and TCP and UDP have their headers.
  static std::optional<Packet> parse(std::span<std::uint8_t> octets);

  /// All of it, and what follows the header of TCP or UDP.
  ByteView octets() const { return octets_; }
  ByteView payload() const { return octets().subspan(payloadAt_); }

  std::uint8_t protocol() const { return octets_[9]; }
  /// The ports are 0 for protocols other than TCP and UDP.
  Endpoint source() const { return endpoint(12, 0); }
  Endpoint destination() const { return endpoint(16, 2); }

  // TCP only.
  bool has(Flag flag) const { return (octets_[ipv4HeaderSize + 13] & flag) != 0; }
  std::uint32_t sequence() const { return number(ipv4HeaderSize + 4); }
  std::uint32_t acknowledged() const { return number(ipv4HeaderSize + 8); }
  /// The sequence number behind it. SYN and FIN count.
  std::uint32_t nextSequence() const;

  /// TCP: gives it another source and destination. The sum over the segment is then that of the
  /// former ones, see Tun::writeBack().
  void readdress(const Endpoint& from, const Endpoint& to);

 private:
  explicit Packet(std::span<std::uint8_t> octets) : octets_(octets) {}
  std::uint32_t number(std::size_t at) const;
  Endpoint endpoint(std::size_t addressAt, std::size_t portAt) const;

  std::span<std::uint8_t> octets_;
  std::size_t payloadAt_ = ipv4HeaderSize;
};

/// Packets of our own, in answer to one from the seal.
namespace PacketAnswer {

/// What a host says to a segment that belongs to no connection of its own.
Bytes reset(const Packet& segment);

/// ICMP, destination unreachable (RFC 792, RFC 1812 section 5.2.7.1), from `router`.
enum class Unreachable : std::uint8_t { network = 0, host = 1, port = 3, prohibited = 13 };
Bytes unreachable(const Packet& packet, Unreachable why, std::uint32_t router);

/// The headers of a datagram, without a checksum (RFC 768): it crosses no wire. The payload fits
/// into an IPv4 packet.
using DatagramHeader = std::array<std::uint8_t, Packet::ipv4HeaderSize + Packet::udpHeaderSize>;
DatagramHeader datagramHeader(const Endpoint& from, const Endpoint& to, std::size_t payloadSize);

}  // namespace PacketAnswer
}  // namespace zk
