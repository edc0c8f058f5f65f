#include "ZelkorSeal/Packet.h"

#include <algorithm>

namespace zk {
namespace {

constexpr std::size_t ip = Packet::ipv4HeaderSize;
constexpr std::size_t ipChecksumAt = 10;
constexpr std::uint8_t hopLimit = 64;

std::uint32_t sumOf(ByteView octets) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i + 1 < octets.size(); i += 2) {
    sum += readUInt16(octets, i);
  }
  return octets.size() % 2 == 0 ? sum : sum + (std::uint32_t{octets.back()} << 8);
}

// RFC 1071.
std::uint16_t folded(std::uint32_t sum) {
  while (sum > 0xFFFF) {
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(sum);
}

std::uint16_t checksum(std::uint32_t sum) {
  return static_cast<std::uint16_t>(~folded(sum));
}

void writeUInt32(std::uint8_t* to, std::uint32_t value) {
  writeUInt16(to, static_cast<std::uint16_t>(value >> 16));
  writeUInt16(to + 2, static_cast<std::uint16_t>(value));
}

void writeAddresses(std::uint8_t* packet, const Endpoint& from, const Endpoint& to) {
  writeUInt32(packet + 12, from.address);
  writeUInt32(packet + 16, to.address);
}

void writePorts(std::uint8_t* packet, const Endpoint& from, const Endpoint& to) {
  writeUInt16(packet + ip, from.port);
  writeUInt16(packet + ip + 2, to.port);
}

// The IP header of a packet that has `body` octets behind it.
void writeIPv4(std::uint8_t* packet, std::uint8_t protocol, const Endpoint& from,
               const Endpoint& to, std::size_t body) {
  packet[0] = 0x45;
  writeUInt16(packet + 2, static_cast<std::uint16_t>(ip + body));
  packet[6] = 0x40;  // don't fragment
  packet[8] = hopLimit;
  packet[9] = protocol;
  writeAddresses(packet, from, to);
  writeUInt16(packet + ipChecksumAt, checksum(sumOf({packet, ip})));
}

}  // namespace

std::optional<Packet> Packet::parse(std::span<std::uint8_t> octets) {
  if (octets.size() < ip || octets[0] != 0x45 || folded(sumOf(octets.first(ip))) != 0xFFFF) {
    return std::nullopt;
  }
  const std::size_t length = readUInt16(octets, 2);
  const bool isFragment = (readUInt16(octets, 6) & 0x3FFF) != 0;
  if (length < ip || length > octets.size() || isFragment) {
    return std::nullopt;
  }
  Packet packet(octets.first(length));
  const std::size_t rest = length - ip;
  std::size_t header = 0;
  if (packet.protocol() == tcp) {
    header = rest < tcpHeaderSize ? tcpHeaderSize : std::size_t{octets[ip + 12]} / 16 * 4;
    header = std::max(header, tcpHeaderSize);
  } else if (packet.protocol() == udp) {
    header = udpHeaderSize;
    if (rest >= udpHeaderSize && readUInt16(octets, ip + 4) != rest) {
      return std::nullopt;
    }
  }
  if (header > rest) {
    return std::nullopt;
  }
  packet.payloadAt_ = ip + header;
  return packet;
}

std::uint32_t Packet::number(std::size_t at) const {
  return std::uint32_t{readUInt16(octets_, at)} << 16 | readUInt16(octets_, at + 2);
}

Endpoint Packet::endpoint(std::size_t addressAt, std::size_t portAt) const {
  const bool hasPorts = protocol() == tcp || protocol() == udp;
  return {number(addressAt), hasPorts ? readUInt16(octets_, ip + portAt) : std::uint16_t{0}};
}

std::uint32_t Packet::nextSequence() const {
  return sequence() + static_cast<std::uint32_t>(payload().size()) + (has(syn) ? 1U : 0U) +
         (has(fin) ? 1U : 0U);
}

void Packet::readdress(const Endpoint& from, const Endpoint& to) {
  std::uint8_t* const packet = octets_.data();
  writeAddresses(packet, from, to);
  writePorts(packet, from, to);
  writeUInt16(packet + ipChecksumAt, 0);
  writeUInt16(packet + ipChecksumAt, checksum(sumOf({packet, ip})));
}

// RFC 9293 section 3.10.7.1.
Bytes PacketAnswer::reset(const Packet& segment) {
  Bytes packet(ip + Packet::tcpHeaderSize);
  const Endpoint from = segment.destination();
  const Endpoint to = segment.source();
  writeIPv4(packet.data(), Packet::tcp, from, to, Packet::tcpHeaderSize);
  writePorts(packet.data(), from, to);
  std::uint8_t* const tcp = packet.data() + ip;
  if (segment.has(Packet::ack)) {
    writeUInt32(tcp + 4, segment.acknowledged());
    tcp[13] = Packet::rst;
  } else {
    writeUInt32(tcp + 8, segment.nextSequence());
    tcp[13] = Packet::rst | Packet::ack;
  }
  tcp[12] = Packet::tcpHeaderSize / 4 << 4;
  const std::uint32_t pseudoHeader =
      sumOf(ByteView(packet).subspan(12, 8)) + Packet::tcp + Packet::tcpHeaderSize;
  writeUInt16(packet.data() + ip + Packet::tcpChecksumAt,
              checksum(pseudoHeader + sumOf(ByteView(packet).subspan(ip))));
  return packet;
}

Bytes PacketAnswer::unreachable(const Packet& packet, Unreachable why, std::uint32_t router) {
  constexpr std::size_t header = 8;
  constexpr std::size_t mostQuoted = ip + 8;  // the ports, and the sequence number of TCP
  const ByteView quoted = packet.octets().first(std::min(packet.octets().size(), mostQuoted));
  Bytes answer(ip + header + quoted.size());
  writeIPv4(answer.data(), Packet::icmp, {router, 0}, packet.source(), header + quoted.size());
  answer[ip] = 3;
  answer[ip + 1] = static_cast<std::uint8_t>(why);
  std::copy(quoted.begin(), quoted.end(), answer.begin() + ip + header);
  writeUInt16(answer.data() + ip + 2, checksum(sumOf(ByteView(answer).subspan(ip))));
  return answer;
}

PacketAnswer::DatagramHeader PacketAnswer::datagramHeader(const Endpoint& from, const Endpoint& to,
                                                          std::size_t payloadSize) {
  DatagramHeader header{};
  const std::size_t length = Packet::udpHeaderSize + payloadSize;
  writeIPv4(header.data(), Packet::udp, from, to, length);
  writePorts(header.data(), from, to);
  writeUInt16(header.data() + ip + 4, static_cast<std::uint16_t>(length));
  return header;
}

}  // namespace zk
