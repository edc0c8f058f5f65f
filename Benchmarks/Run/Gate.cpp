// Each thread waits in the one call that it goes round: a packet is read and written, a piece of a
// stream spliced twice, a datagram received and written. The programs' ports serve as the numbers
// of their connections, and the far end of all of them is known, so that there is no table.

#include "Run/Gate.h"

#include <array>
#include <cstdio>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Loopback/KitSocket.h"
#include "Loopback/SOCKS5Frame.h"
#include "ZelkorSeal/Network.h"
#include "ZelkorSeal/Packet.h"
#include "ZelkorSeal/Tun.h"

namespace zk::bench {
namespace {

using loopback::socks5HeaderSize;
using SharedSocket = std::shared_ptr<loopback::KitSocket>;

// What the tun says of a packet before it, which goes back as it has come.
constexpr std::size_t aboutSize = sizeof(Tun::About);
constexpr std::size_t ip = Packet::ipv4HeaderSize;
constexpr std::size_t udpHeaders = ip + Packet::udpHeaderSize;
constexpr std::size_t frameAt = udpHeaders - socks5HeaderSize;  // where its payload is in place
constexpr int pieceSize = 256 << 10;

enum class Command : std::uint8_t { connect = 1, associate = 3 };

// A connection to the proxy on which it has said yes, in the plainest way: one message and one
// answer after the other, without a login (RFC 1928). And what its answer names.
struct Proxied {
  loopback::KitSocket socket;
  Endpoint bound;
};

Proxied ask(const Endpoint& proxy, Command command, const Endpoint& target) {
  auto socket = loopback::KitSocket::connectedTCP(proxy);
  const auto say = [&](const Bytes& message, std::size_t size) {
    Bytes answer(size);
    socket.send(message);
    if (recv(socket.get(), answer.data(), size, MSG_WAITALL) != static_cast<ssize_t>(size) ||
        answer[1] != 0) {
      throw std::runtime_error("the proxy refuses");
    }
    return answer;
  };
  say({5, 1, 0}, 2);
  Bytes request = loopback::socks5Frame(target, {});  // but for its first octets the same
  request[0] = 5;
  request[1] = static_cast<std::uint8_t>(command);
  const Bytes answer = say(request, request.size());
  return {std::move(socket), {readUInt32(answer, 4), readUInt16(answer, 8)}};
}

SealDescriptors enterNetwork() {
  std::promise<SealDescriptors> made;
  std::thread([&made] {
    if (unshare(CLONE_NEWNET) != 0) {
      _exit(1);
    }
    SealDescriptors descriptors = makeSealNetwork();
    std::printf("%d\n", gettid());
    std::fflush(stdout);
    made.set_value(std::move(descriptors));
    for (;;) {
      pause();
    }
  }).detach();
  return made.get_future().get();
}

class Gate {
 public:
  Gate(const Endpoint& proxy, const Endpoint& target)
      : proxy_(proxy), target_(target), network_(enterNetwork()) {
    fcntl(tun(), F_SETFL, 0);
    fcntl(network_.listener.get(), F_SETFL, 0);
    relay_.connectTo(association_.bound);
    loopback::setBlocking(relay_.get(), {});
  }

  [[noreturn]] void run() {
    std::thread([this] { acceptAll(); }).detach();
    std::thread([this] { takeAnswers(); }).detach();
    takePackets();
  }

 private:
  int tun() const { return network_.tun.get(); }

  [[noreturn]] void takePackets() {
    static std::array<std::uint8_t, 65536> buffer;
    std::uint8_t* const packet = buffer.data() + aboutSize;
    for (;;) {
      const ssize_t got = read(tun(), buffer.data(), buffer.size());
      if (got < static_cast<ssize_t>(aboutSize + udpHeaders)) {
        continue;
      }
      const auto size = static_cast<std::size_t>(got);
      if (packet[9] == Packet::udp) {
        sendFrame(packet, size - aboutSize);
      } else if (packet[9] == Packet::tcp) {
        forward(packet);
        [[maybe_unused]] const ssize_t written = write(tun(), buffer.data(), size);
      }
    }
  }

  void sendFrame(std::uint8_t* packet, std::size_t size) {
    const ByteView octets(packet, size);
    const Endpoint to{readUInt32(octets, 16), readUInt16(octets, ip + 2)};
    program_ = readUInt16(octets, ip);
    loopback::writeSOCKS5Header(packet + frameAt, to);
    relay_.send(octets.subspan(frameAt));
  }

  [[noreturn]] void takeAnswers() {
    static std::array<std::uint8_t, 65536> buffer;
    std::uint8_t* const frame = buffer.data() + aboutSize + frameAt;
    for (;;) {
      const ssize_t got = recv(relay_.get(), frame, buffer.size() - aboutSize - frameAt, 0);
      if (got < static_cast<ssize_t>(socks5HeaderSize)) {
        continue;
      }
      const ByteView octets(frame, static_cast<std::size_t>(got));
      const Endpoint from{readUInt32(octets, 4), readUInt16(octets, 8)};
      const std::size_t payload = octets.size() - socks5HeaderSize;
      const auto header =
          PacketAnswer::datagramHeader(from, {SealNetwork::address, program_}, payload);
      std::copy(header.begin(), header.end(), buffer.begin() + aboutSize);
      [[maybe_unused]] const ssize_t written =
          write(tun(), buffer.data(), aboutSize + header.size() + payload);
    }
  }

  void forward(std::uint8_t* packet) {
    const ByteView octets(packet, ip + Packet::tcpHeaderSize);
    const std::uint16_t from = readUInt16(octets, ip);
    if (from == SealNetwork::listenerPort) {
      readdress(packet, target_, {SealNetwork::address, readUInt16(octets, ip + 2)});
      return;
    }
    if ((packet[ip + 13] & (Packet::syn | Packet::ack)) == Packet::syn) {
      waiting_ =
          std::make_shared<loopback::KitSocket>(ask(proxy_, Command::connect, target_).socket);
    }
    readdress(packet, {SealNetwork::gateway, from},
              {SealNetwork::address, SealNetwork::listenerPort});
  }

  // What the IP checksum loses on one side is put back (RFC 1624).
  static void readdress(std::uint8_t* packet, const Endpoint& from, const Endpoint& to) {
    const std::uint32_t words[] = {from.address >> 16, from.address & 0xFFFF, to.address >> 16,
                                   to.address & 0xFFFF};
    const ByteView octets(packet, ip + Packet::tcpHeaderSize);
    std::uint32_t sum = readUInt16(octets, 10);
    for (std::size_t i = 0; i < std::size(words); ++i) {
      sum += readUInt16(octets, 12 + 2 * i) + 0xFFFF - words[i];
      writeUInt16(packet + 12 + 2 * i, static_cast<std::uint16_t>(words[i]));
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    writeUInt16(packet + 10, static_cast<std::uint16_t>(sum + (sum >> 16)));
    writeUInt16(packet + ip, from.port);
    writeUInt16(packet + ip + 2, to.port);
  }

  // The SYN has gone in behind its proxy's yes.
  [[noreturn]] void acceptAll() {
    for (;;) {
      const auto program = std::make_shared<loopback::KitSocket>(
          accept4(network_.listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      const SharedSocket far = waiting_;
      std::thread([=] { pass(*program, *far); }).detach();
      std::thread([=] { pass(*far, *program); }).detach();
    }
  }

  static void pass(const loopback::KitSocket& from, const loopback::KitSocket& to) {
    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
      return;
    }
    const Descriptor reader(pipe[0]);
    const Descriptor writer(pipe[1]);
    fcntl(pipe[1], F_SETPIPE_SZ, pieceSize);
    const auto move = [](int source, int sink, ssize_t most) {
      return splice(source, nullptr, sink, nullptr, static_cast<std::size_t>(most), SPLICE_F_MOVE);
    };
    for (ssize_t held = 1; held > 0;) {
      held = move(from.get(), writer.get(), pieceSize);
      for (ssize_t left = held, moved = 1; left > 0 && moved > 0; left -= moved) {
        moved = move(reader.get(), to.get(), left);
      }
    }
    shutdown(to.get(), SHUT_WR);
  }

  const Endpoint proxy_;
  const Endpoint target_;
  const SealDescriptors network_;
  const Proxied association_ = ask(proxy_, Command::associate, {});
  const loopback::KitSocket relay_ = loopback::KitSocket::boundUDP("0.0.0.0");
  std::atomic<std::uint16_t> program_{0};
  SharedSocket waiting_;  // set before the SYN goes in, read after it has been accepted
};

}  // namespace

void runGate(const Endpoint& proxy, const Endpoint& target) {
  static Gate gate(proxy, target);
  gate.run();
}

}  // namespace zk::bench
