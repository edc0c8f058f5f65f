#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {
namespace {

using test::hex;

TEST(SOCKS5UDPFrame, WrapsWithAnIPv4Header) {
  EXPECT_EQ(SOCKS5UDPFrame::wrap(hex("A1A2A3"), "203.0.113.9", 3478),
            hex("00000001 CB007109 0D96 A1A2A3"));
  EXPECT_EQ(SOCKS5UDPFrame::wrap({}, "1.2.3.4", 0xFFFE), hex("00000001 01020304 FFFE"));
  const std::pair<const char*, const char*> addresses[] = {
      {"1..2.3.4", "01020304"},  {"1.2.x.3.4", "01020304"}, {"1.2.3.999", "00000000"},
      {"1.2.3", "00000000"},     {"example", "00000000"},   {"2001:db8::1", "00000000"},
      {"1.2.3.4.5", "00000000"}, {"", "00000000"}};
  for (const auto& [text, octets] : addresses) {
    EXPECT_EQ(SOCKS5UDPFrame::wrap(hex("AA"), text, 1),
              hex(std::string("00000001") + octets + "0001AA"))
        << text;
  }
}

TEST(SOCKS5UDPFrame, UnwrapsEachAddressTypeWhateverRSVAndFRAGSay) {
  const struct {
    const char* datagram;
    const char* ip;
    int port;
    const char* payload;
  } cases[] = {{"00000001 C0000207 FFFE", "192.0.2.7", 0xFFFE, ""},
               {"FFFF0501 00000000 0001 AABB", "0.0.0.0", 1, "AABB"},
               {"00000003 04 686F7374 0102", "host", 0x0102, ""},
               {"00000003 00 0102 AABBCC", "", 0x0102, "AABBCC"},
               {"00000003 04 80FFC3FE 0102 AA", "", 0x0102, "AA"},  // not UTF-8
               {"00000003 02 C3A4 0102 AABB", "\u00E4", 0x0102, "AABB"},
               {"00000004 20010DB8000000000000000000000001 0102",
                "20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:01", 0x0102, ""},
               {"00000004 FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF 0102 AA",
                "ff:ff:ff:ff:ff:ff:ff:ff:ff:ff:ff:ff:ff:ff:ff:ff", 0x0102, "AA"}};
  for (const auto& c : cases) {
    const Bytes datagram = hex(c.datagram);
    const auto frame = SOCKS5UDPFrame::unwrap(datagram);
    ASSERT_TRUE(frame) << c.datagram;
    EXPECT_EQ(frame->srcIP, c.ip);
    EXPECT_EQ(frame->srcPort, c.port);
    EXPECT_EQ(test::copyOf(frame->payload), hex(c.payload));
  }
}

TEST(SOCKS5UDPFrame, UnwrapsNothingThatIsCutShortOrOfAnotherType) {
  // Every proper beginning of a frame with an empty payload.
  for (const char* const whole :
       {"00000001 C0000207 0102", "00000003 04 686F7374 0102", "00000003 09 3031323334353637380102",
        "00000004 20010DB8000000000000000000000001 0102"}) {
    const Bytes octets = hex(whole);
    ASSERT_TRUE(SOCKS5UDPFrame::unwrap(octets));
    for (std::size_t size = 0; size < octets.size(); ++size) {
      EXPECT_FALSE(SOCKS5UDPFrame::unwrap(
          Bytes(octets.begin(), octets.begin() + static_cast<std::ptrdiff_t>(size))))
          << whole << " cut to " << size;
    }
  }
  Bytes other(300, 1);
  for (unsigned type = 0; type < 256; ++type) {
    other[3] = static_cast<std::uint8_t>(type);
    EXPECT_EQ(SOCKS5UDPFrame::unwrap(other).has_value(), type == 1 || type == 3 || type == 4);
  }
  Bytes longName(261, 'n');
  longName[3] = 3;
  longName[4] = 255;
  EXPECT_FALSE(SOCKS5UDPFrame::unwrap(longName));
  longName.resize(262);
  EXPECT_EQ(SOCKS5UDPFrame::unwrap(longName)->srcIP, std::string(255, 'n'));
}

TEST(SOCKS5UDPFrame, GivesBackWhatWasWrapped) {
  const Bytes payload(65000, 0x5A);
  const Bytes wire = SOCKS5UDPFrame::wrap(payload, "198.51.100.255", 65535);
  const auto frame = SOCKS5UDPFrame::unwrap(wire);
  ASSERT_TRUE(frame);
  EXPECT_EQ(test::copyOf(frame->payload), payload);
  EXPECT_EQ(frame->srcIP, "198.51.100.255");
  EXPECT_EQ(frame->srcPort, 65535);
}

}  // namespace
}  // namespace zk
