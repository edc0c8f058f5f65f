// The header of the UDP association: unwrap(wrap(x)) is x, and unwrap() takes just the datagrams
// that RFC 1928 section 7 describes, whatever RSV and FRAG hold.

#include "Fuzz.h"
#include "Platform/UTF8.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk::fuzz {
namespace {

void checkUnwrap(ByteView datagram) {
  const auto frame = SOCKS5UDPFrame::unwrap(datagram);
  const std::uint8_t type = datagram.size() < 10 ? std::uint8_t{0} : datagram[3];
  const std::size_t header = type == 1 ? 10U : type == 3 ? 7U + datagram[4] : type == 4 ? 22U : 0U;
  require(frame.has_value() == (header != 0 && datagram.size() >= header),
          "a frame just when its header is whole and of a known address type");
  if (!frame) {
    return;
  }
  require(frame->payload.data() == datagram.data() + header &&
              frame->payload.size() == datagram.size() - header,
          "the payload is all that stands behind the header");
  require(frame->srcPort == readUInt16(datagram, header - 2), "the port ends the header");
  const ByteView address = datagram.subspan(type == 3 ? 5 : 4, header - (type == 3 ? 7 : 6));
  if (type == 1) {
    require(frame->srcIP == dottedQuad(address), "an IPv4 address is a dotted quad");
  } else if (type == 3) {
    const bool isText = repairedUTF8(textOf(address)) == textOf(address);
    require(frame->srcIP == (isText ? textOf(address) : ""), "a name is its text, or nothing");
  } else {
    std::string pairs;
    for (const std::uint8_t octet : address) {
      constexpr std::string_view digits = "0123456789abcdef";
      pairs += {digits[octet >> 4], digits[octet & 15], ':'};
    }
    pairs.pop_back();
    require(frame->srcIP == pairs, "an IPv6 address is sixteen pairs");
  }
}

}  // namespace

void run(ByteView bytes) {
  checkUnwrap(bytes);

  Input input(bytes);
  const std::uint16_t port = input.number();
  const std::string_view peer = textOf(input.take(input.octet() % 32));
  const ByteView payload = input.rest();
  const Bytes datagram = SOCKS5UDPFrame::wrap(payload, peer, port);
  require(datagram.size() == payload.size() + 10, "a header of ten octets");
  checkUnwrap(datagram);
  const auto frame = SOCKS5UDPFrame::unwrap(datagram);
  require(frame && areEqual(frame->payload, payload) && frame->srcPort == port &&
              frame->srcIP == dottedQuad(lenientIPv4(peer).value_or(IPv4Octets{})),
          "unwrap(wrap(x)) is x");
  require(areEqual(ByteView(datagram).first(4), bytesOf(std::string_view("\0\0\0\1", 4))),
          "RSV and FRAG are zero");
}

std::vector<Bytes> seeds() {
  const Bytes name =
      joined({Bytes{0, 0, 0, 3, 9}, bytesOf("zk\xC3\xA9.test"), Bytes{13, 150, 'p'}});
  return {SOCKS5UDPFrame::wrap(bytesOf("payload"), "203.0.113.9", 3478),
          SOCKS5UDPFrame::wrap({}, "example", 1),
          joined({Bytes{0xFF, 0xFF, 5, 4}, Bytes(16, 0xAB), Bytes{1, 2}, bytesOf("six")}),
          name,
          {0, 0, 0, 3, 0, 1, 2, 3, 4, 5},
          joined({Bytes{13, 150, 9}, bytesOf("1..2.x.3.4"), bytesOf("payload")})};
}

}  // namespace zk::fuzz
