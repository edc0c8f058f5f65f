#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {
namespace {

using test::hex;

TEST(SOCKS5UDPFrame, WrapsWithAnIPv4Header) {
  EXPECT_EQ(SOCKS5UDPFrame::wrap(hex("A1"), {0xCB007109, 3478}), hex("00000001 CB007109 0D96 A1"));
  EXPECT_EQ(SOCKS5UDPFrame::wrap({}, Endpoint()), hex("00000001 00000000 0000"));
}

// Each header, cut short anywhere, whole, and with a payload.
TEST(SOCKS5UDPFrame, UnwrapsEachAddressTypeWhateverRSVAndFRAGSay) {
  for (const auto& [header, ip] :
       {std::pair(std::string("00000001 C0000207 FFFE"), std::string("192.0.2.7")),
        {"FFFF0501 00000000 FFFE", "0.0.0.0"},
        {"00000003 04 C3A46F6B FFFE", "\u00E4ok"},
        {"00000003 09 3139322E302E322E37 FFFE", "192.0.2.7"},  // an address, though called a name
        {"00000003 03 80FFC3 FFFE", ""},                       // not UTF-8
        {"00000003 FF" + std::string(510, '6') + "FFFE", std::string(255, 'f')},
        {"00000004 20010DB80000000000000000000000FF FFFE",
         "20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:ff"}}) {
    Bytes datagram = hex(header);
    for (std::size_t size = 0; size < datagram.size(); ++size) {
      EXPECT_FALSE(SOCKS5UDPFrame::unwrap(ByteView(datagram).first(size))) << header << ' ' << size;
    }
    for (std::size_t payload = 0; payload < 3; ++payload) {
      const auto frame = SOCKS5UDPFrame::unwrap(datagram);
      ASSERT_TRUE(frame) << header;
      EXPECT_EQ(frame->name.value_or(frame->source.ip()), ip);
      EXPECT_EQ(frame->name.has_value(), !parseAddress(ip)) << ip;
      EXPECT_EQ(frame->source.port, 0xFFFE);
      EXPECT_EQ(test::copyOf(frame->payload), Bytes(payload, 0xAB));
      datagram.push_back(0xAB);
    }
  }
  for (const char* const type : {"00", "02", "05"}) {
    EXPECT_FALSE(SOCKS5UDPFrame::unwrap(hex("000000" + std::string(type) + "01020304 0102 AABB")));
  }
}

}  // namespace
}  // namespace zk
