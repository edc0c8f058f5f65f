#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

#include <fmt/format.h>

#include "Base/UTF8.h"

namespace zk {

SOCKS5UDPFrame::Header SOCKS5UDPFrame::header(const Endpoint& toPeer) {
  const auto octets = toPeer.octets();
  Header header{0, 0, 0, SOCKS5AddressType::ipv4, octets[0], octets[1], octets[2], octets[3]};
  writeUInt16(&header[8], toPeer.port);
  return header;
}

Bytes SOCKS5UDPFrame::wrap(ByteView payload, const Endpoint& toPeer) {
  return concatenated(header(toPeer), payload);
}

Bytes SOCKS5UDPFrame::wrap(ByteView payload, const HostPort& toPeer) {
  if (const auto address = parseAddress(toPeer.host)) {
    return wrap(payload, Endpoint{*address, toPeer.port});
  }
  Bytes header{0, 0, 0, SOCKS5AddressType::domainName,
               static_cast<std::uint8_t>(toPeer.host.size())};
  header.insert(header.end(), toPeer.host.begin(), toPeer.host.end());
  header.resize(header.size() + 2);
  writeUInt16(&header[header.size() - 2], toPeer.port);
  return concatenated(header, payload);
}

std::optional<SOCKS5UDPFrame::Unwrapped> SOCKS5UDPFrame::unwrap(ByteView datagram) {
  if (datagram.size() < headerSize) {
    return std::nullopt;
  }
  constexpr std::size_t addressAt = 4;
  const std::uint8_t type = datagram[3];
  const auto addressSize = SOCKS5AddressType::size(type, datagram[addressAt]);
  if (!addressSize || datagram.size() < addressAt + *addressSize + 2) {
    return std::nullopt;
  }
  const ByteView address = datagram.subspan(addressAt, *addressSize);
  const std::size_t portAt = addressAt + *addressSize;
  Unwrapped found{datagram.subspan(portAt + 2), {0, readUInt16(datagram, portAt)}};
  if (type == SOCKS5AddressType::ipv4) {
    found.source.address = readUInt32(address, 0);
    return found;
  }
  found.name =
      type == SOCKS5AddressType::ipv6 ? ipv6Text(address) : domainNameText(address.subspan(1));
  if (const auto quad = parseAddress(*found.name)) {  // an address after all
    found.source.address = *quad;
    found.name.reset();
  }
  return found;
}

std::optional<std::size_t> SOCKS5AddressType::size(std::uint8_t type, std::uint8_t first) {
  switch (type) {
    case ipv4:
      return 4;
    case domainName:
      return std::size_t{1} + first;
    case ipv6:
      return 16;
    default:
      return std::nullopt;
  }
}

std::string ipv6Text(ByteView octets) {
  return fmt::format("{:02x}", fmt::join(octets.begin(), octets.end(), ":"));
}

std::string domainNameText(ByteView octets) {
  const std::string_view text(reinterpret_cast<const char*>(octets.data()), octets.size());
  return isValidUTF8(text) ? std::string(text) : std::string();
}

}  // namespace zk
