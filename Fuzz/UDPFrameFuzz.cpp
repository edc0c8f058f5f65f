// The header of the UDP association: unwrap(wrap(x)) is x, and unwrap() takes just the datagrams
// that RFC 1928 section 7 describes, whatever RSV and FRAG hold. The texts of IPv4 addresses too.

#include <fmt/format.h>

#include "Base/Endpoint.h"
#include "Base/UTF8.h"
#include "Fuzz.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk::fuzz {
namespace {

std::string addressText(std::uint8_t type, ByteView address) {
  if (type == 3) {
    const std::string text(textOf(address));
    return repairedUTF8(text) == text ? text : "";
  }
  return type == 1 ? dottedQuad(address)
                   : fmt::format("{:02x}", fmt::join(address.begin(), address.end(), ":"));
}

void checkUnwrap(ByteView datagram) {
  const auto frame = SOCKS5UDPFrame::unwrap(datagram);
  const std::uint8_t type = datagram.size() < 10 ? std::uint8_t{0} : datagram[3];
  const std::size_t header = type == 1 ? 10U : type == 3 ? 7U + datagram[4] : type == 4 ? 22U : 0U;
  require(frame.has_value() == (header != 0 && datagram.size() >= header),
          "a frame just when its header is whole and of a known address type");
  if (frame) {
    require(frame->payload.data() == datagram.data() + header &&
                frame->payload.size() == datagram.size() - header,
            "the payload is all that stands behind the header");
    const ByteView address = datagram.subspan(type == 3 ? 5 : 4, header - (type == 3 ? 7 : 6));
    require(frame->srcPort == readUInt16(datagram, header - 2) &&
                frame->srcIP == addressText(type, address),
            "the header ends with address and port");
  }
}

}  // namespace

void run(ByteView bytes) {
  checkUnwrap(bytes);

  Input input(bytes);
  const std::uint16_t port = input.number();
  const std::string_view peer = textOf(input.take(input.octet() % 32));
  const ByteView payload = input.rest();
  const Endpoint endpoint{parseAddressLeniently(peer).value_or(0), port};
  require(!parseAddress(peer) || endpoint.ip() == peer,
          "a strict dotted quad is its own normal form");
  Bytes header = joined({Bytes{0, 0, 0, 1}, endpoint.octets(), Bytes(2)});
  writeUInt16(&header[8], port);
  const Bytes datagram = SOCKS5UDPFrame::wrap(payload, peer, port);
  require(datagram == joined({header, payload}), "wrap() puts one header in front");
  checkUnwrap(datagram);
}

std::vector<Bytes> seeds() {
  std::vector<Bytes> all{
      SOCKS5UDPFrame::wrap(bytesOf("payload"), "203.0.113.9", 3478),
      joined({Bytes{0xFF, 0xFF, 5, 4}, Bytes(16, 0xAB), Bytes{1, 2}, bytesOf("six")}),
      joined({Bytes{0, 0, 0, 3, 9}, bytesOf("zk\xC3\xA9.test"), Bytes{13, 150, 'p'}}),
      {0, 0, 0, 3, 0, 1, 2, 3, 4, 5}};
  for (const char* text : {"192.0.2.1", "255.255.255.255", "1..2.x.3.4", "10.0.0.256", "007.1.2.3",
                           "1.2.3", "1.2.3.4.5", "example.org"}) {
    all.push_back(joined({Bytes{13, 150, 31}, bytesOf(text)}));
  }
  return all;
}

}  // namespace zk::fuzz
