#include <random>

#include <gtest/gtest.h>

#include "Support.h"
#include "ZelkorSeal/Packet.h"

namespace zk::test {
namespace {

// RFC 1071 in the plainest form: what a receiver computes over a part whose checksum is right.
std::uint16_t sum(const Bytes& octets) {
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < octets.size(); ++i) {
    total += i % 2 == 0 ? octets[i] * 256U : octets[i];
  }
  return static_cast<std::uint16_t>(total % 0xFFFF);
}

bool isIPv4Right(ByteView packet) {
  return sum(copyOf(packet.first(20))) == 0;
}

bool isTransportRight(ByteView packet) {
  Bytes all = copyOf(packet.subspan(12, 8));
  const std::size_t length = packet.size() - 20;
  all.insert(all.end(), {0, packet[9], static_cast<std::uint8_t>(length >> 8),
                         static_cast<std::uint8_t>(length)});
  all.insert(all.end(), packet.begin() + 20, packet.end());
  return sum(all) == 0;
}

constexpr Endpoint program{0xC0A80164, 40000};
constexpr Endpoint far{0xCB007107, 443};

// A SYN of a Linux system with its options, from `program` to `far`.
const Bytes syn = [] {
  Bytes packet(24);
  const Bytes rest =
      hex("11112222 00000000 a002ff00 00000000 020405b4 0402080a 01020304 00000000 01030307");
  packet.insert(packet.end(), rest.begin(), rest.end());
  const auto made = PacketAnswer::datagramHeader(program, far, 32);  // the IP header
  std::copy_n(made.begin(), 9, packet.begin());
  packet[9] = 6;
  std::copy(made.begin() + 12, made.begin() + 24, packet.begin() + 12);
  writeUInt16(packet.data() + 10, 0);
  writeUInt16(packet.data() + 10,
              static_cast<std::uint16_t>(~sum(copyOf(ByteView(packet).first(20)))));
  writeUInt16(packet.data() + 36, 0);
  Bytes all = copyOf(ByteView(packet).subspan(12, 8));
  all.insert(all.end(), {0, 6, 0, 40});
  all.insert(all.end(), packet.begin() + 20, packet.end());
  writeUInt16(packet.data() + 36, static_cast<std::uint16_t>(~sum(all)));
  return packet;
}();

TEST(PacketTest, ReadsASegmentAndGivesItOtherAddresses) {
  Bytes octets = syn;
  octets.push_back(0xEE);  // of no packet
  auto packet = Packet::parse(octets);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->octets().size(), syn.size());
  EXPECT_EQ(packet->source(), program);
  EXPECT_EQ(packet->destination(), far);
  EXPECT_TRUE(packet->has(Packet::syn) && !packet->has(Packet::ack));
  EXPECT_EQ(packet->payload().size(), 0U);
  EXPECT_EQ(packet->nextSequence(), packet->sequence() + 1);

  const Bytes behindPorts = copyOf(packet->octets().subspan(24));
  std::mt19937 engine(5);
  const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
  for (int i = 0; i < 20'000; ++i) {
    const Endpoint from{random(), static_cast<std::uint16_t>(random())};
    const Endpoint to{i % 3 == 0 ? 0 : random(), static_cast<std::uint16_t>(random())};
    packet->readdress(from, to);
    ASSERT_EQ(packet->source(), from);
    ASSERT_EQ(packet->destination(), to);
    ASSERT_TRUE(isIPv4Right(packet->octets()));
  }
  EXPECT_EQ(copyOf(packet->octets().subspan(24)), behindPorts);
}

TEST(PacketTest, AnswersWithPacketsThatAreRight) {
  Bytes octets = syn;
  const auto packet = Packet::parse(octets);
  ASSERT_TRUE(packet);
  Bytes reset = PacketAnswer::reset(*packet);
  const auto refused = Packet::parse(reset);
  ASSERT_TRUE(refused && isTransportRight(reset));
  EXPECT_EQ(refused->source(), far);
  EXPECT_EQ(refused->destination(), program);
  EXPECT_TRUE(refused->has(Packet::rst) && refused->has(Packet::ack));
  EXPECT_EQ(refused->acknowledged(), packet->sequence() + 1);

  Bytes unreachable =
      PacketAnswer::unreachable(*packet, PacketAnswer::Unreachable::network, 0xC0A80101);
  ASSERT_TRUE(Packet::parse(unreachable));
  EXPECT_EQ(sum(copyOf(ByteView(unreachable).subspan(20))), 0);
  EXPECT_EQ(copyOf(ByteView(unreachable).subspan(28)), copyOf(ByteView(syn).first(28)));

  for (const std::size_t size : {0U, 1U, 1201U, 65'000U}) {
    Bytes datagram =
        concatenated(PacketAnswer::datagramHeader(far, program, size), Bytes(size, 0xA5));
    const auto read = Packet::parse(datagram);
    ASSERT_TRUE(read && isIPv4Right(datagram));
    EXPECT_EQ(read->source(), far);
    EXPECT_EQ(read->destination(), program);
    EXPECT_EQ(copyOf(read->payload()), Bytes(size, 0xA5));
  }
}

}  // namespace
}  // namespace zk::test
