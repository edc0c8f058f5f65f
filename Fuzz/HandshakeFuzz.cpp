// The SOCKS5 handshake with a proxy that answers anything. The proxy is a listener on the loopback
// that has said all it will say before the handshake begins, so that no outcome depends on timing.

#include <array>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Fuzz.h"
#include "Platform/IPv4.h"
#include "Platform/Resolver.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {

// In place of the system's resolver: knows numeric addresses and no names.
Resolution resolveUDPv4(const std::string& host, const std::string& port, Deadline,
                        const StopSignal*) {
  if (!isDottedQuad(host)) {
    return {{}, "no such name"};
  }
  const sockaddr_in address = socketAddress(host, static_cast<std::uint16_t>(std::stoi(port)));
  ResolvedAddress resolved{AF_INET, SOCK_DGRAM, IPPROTO_UDP, {}, sizeof address};
  std::memcpy(&resolved.address, &address, sizeof address);
  return {{resolved}, {}};
}

Resolution resolveTCP(const std::string& host, const std::string& port, Deadline deadline,
                      const StopSignal* stop) {
  Resolution resolution = resolveUDPv4(host, port, deadline, stop);
  resolution.addresses.front().type = SOCK_STREAM;
  resolution.addresses.front().protocol = IPPROTO_TCP;
  return resolution;
}

}  // namespace zk

namespace zk::fuzz {
namespace {

using Kind = SOCKS5Error::Kind;
using Text = std::optional<std::string>;

// Seconds. A proxy that says too little must cost little; one that says enough must never meet the
// limit, however busy the machine is.
constexpr double limitForSilence = 0.002;
constexpr double limitOtherwise = 20;

struct Expected {
  std::optional<Kind> error{};
  std::string host = "127.0.0.1";     // of the relay, as text
  std::string address = "127.0.0.1";  // where datagrams go
  std::uint16_t port = 0;
  Bytes sent{};           // by the client, up to where it gives up
  bool isSilent = false;  // it gives up because it waits for what does not come
};

// RFC 1928 and RFC 1929 as read by the harness. `answers` counts as followed by silence.
Expected expectedOutcome(ByteView answers, const Text& user, const Text& password) {
  Expected outcome;
  outcome.sent = user && password ? Bytes{5, 2, 0, 2} : Bytes{5, 1, 0};
  Input input(answers);
  bool& isSilent = outcome.isSilent;
  const auto next = [&](std::size_t count) {
    isSilent = isSilent || input.rest().size() < count;
    const ByteView taken = isSilent ? ByteView() : input.take(count);
    return Bytes(taken.begin(), taken.end());
  };
  const auto fails = [&](Kind kind) {
    outcome.error = isSilent ? Kind::connectionFailed : kind;
    return outcome;
  };

  if (user && password && (user->size() > 255 || password->size() > 255)) {
    outcome.sent.clear();
    return fails(Kind::authFailed);  // there is no way to send them
  }
  const Bytes choice = next(2);
  if (isSilent || choice[0] != 5) {
    return fails(Kind::protocolError);
  }
  if (choice[1] == 2) {
    if (!user || !password) {
      return fails(Kind::authFailed);
    }
    append(outcome.sent, Bytes{1, static_cast<std::uint8_t>(user->size())});
    append(outcome.sent, bytesOf(*user));
    outcome.sent.push_back(static_cast<std::uint8_t>(password->size()));
    append(outcome.sent, bytesOf(*password));
    const Bytes status = next(2);
    if (isSilent || status[0] != 1) {
      return fails(Kind::protocolError);
    }
    if (status[1] != 0) {
      return fails(Kind::authFailed);
    }
  } else if (choice[1] != 0) {
    return fails(Kind::authFailed);
  }

  append(outcome.sent, Bytes{5, 3, 0, 1, 0, 0, 0, 0, 0, 0});
  const Bytes reply = next(4);
  if (isSilent || reply[0] != 5) {
    return fails(Kind::protocolError);
  }
  if (reply[1] != 0) {
    return fails(Kind::udpAssociateRejected);
  }
  if (reply[3] != 1 && reply[3] != 3 && reply[3] != 4) {
    return fails(Kind::protocolError);
  }
  std::size_t length = reply[3] == 1 ? 4 : 16;
  if (reply[3] == 3) {
    const Bytes count = next(1);
    length = isSilent ? 0 : count[0];
  }
  const Bytes address = next(length);
  const Bytes port = next(2);
  if (isSilent) {
    return fails(Kind::connectionFailed);
  }
  outcome.port = readUInt16(port, 0);
  const std::string text = reply[3] == 3   ? domainNameText(address)
                           : reply[3] == 4 ? ipv6Text(address)
                                           : dottedQuad(address);
  if (outcome.port == 0) {
    return fails(Kind::protocolError);
  }
  if (reply[3] == 4) {
    return fails(Kind::connectionFailed);
  }
  if (text.empty() || text == "0.0.0.0") {
    return outcome;  // the proxy's own address
  }
  if (!isDottedQuad(text)) {
    return fails(Kind::connectionFailed);
  }
  outcome.host = outcome.address = text;
  const auto octets = parseIPv4(text).value();
  const bool isHost = octets[0] != 0 && octets[0] >> 4 != 14 && text != "255.255.255.255";
  return isHost ? outcome : fails(Kind::protocolError);
}

// The proxy's listening socket, for the life of the process.
struct Listener {
  int socket = openSocket(AF_INET, SOCK_STREAM, 0);
  std::uint16_t port = 0;
  Listener() {
    require(bindSocket(socket, socketAddress("127.0.0.1", 0)) && listen(socket, 16) == 0,
            "a listener can be had");
    port = portNumber(localAddress(socket));
  }
};

int lowestFreeDescriptor() {
  const int descriptor = dup(0);
  close(descriptor);
  return descriptor;
}

}  // namespace

void run(ByteView bytes) {
  static const Listener listener;
  static const std::array<std::pair<Text, Text>, 8> credentials{{
      {{}, {}},
      {"user-of-proxy", "pass-of-proxy"},
      {"", ""},
      {std::string(255, 'u'), std::string(255, 'p')},
      {std::string(256, 'u'), "pass-of-proxy"},
      {"user-of-proxy", std::string(300, 'p')},
      {"user-of-proxy", {}},
      {{}, "pass-of-proxy"},
  }};
  Input input(bytes);
  const std::uint8_t choice = input.octet();
  const auto& [user, password] = credentials[choice % credentials.size()];
  Bytes answers = joined({input.take(1024)});
  if (choice < 0xE0) {
    answers.resize(answers.size() + 600);  // waiting for silence to end costs 20 ms each time
  }

  const int descriptor = lowestFreeDescriptor();
  const Expected expected = expectedOutcome(answers, user, password);
  const bool isSilent = expected.isSilent;
  SOCKS5Control control("127.0.0.1", listener.port, user, password,
                        isSilent ? limitForSilence : limitOtherwise);
  control.connect();
  const int proxy = accept(listener.socket, nullptr, nullptr);
  require(send(proxy, answers.data(), answers.size(), MSG_NOSIGNAL) ==
              static_cast<ssize_t>(answers.size()),
          "the proxy can speak");
  shutdown(proxy, SHUT_WR);

  std::optional<Kind> error;
  SOCKS5Control::RelayEndpoint endpoint;
  try {
    endpoint = control.performHandshakeAndUDPAssociate();
  } catch (const SOCKS5Error& failure) {
    error = failure.kind();
    const auto holdsCredential = [](std::string_view text) {
      return text.find("-of-proxy") != std::string_view::npos;
    };
    const std::string said(answers.begin(), answers.end());  // the proxy may quote what it likes
    require(!holdsCredential(failure.description()) || holdsCredential(said),
            "no description holds a credential");
  }
  require(error == expected.error, "the outcome is the one the answers call for");
  require(error || (endpoint.relayHost == expected.host && endpoint.relayPort == expected.port &&
                    addressText(endpoint.relayAddress) == expected.address &&
                    portNumber(endpoint.relayAddress) == expected.port),
          "the relay is where the proxy says");

  std::array<std::uint8_t, 2048> sent;
  const ssize_t count = recv(proxy, sent.data(), sent.size(), MSG_DONTWAIT);
  const auto length = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  require(length == expected.sent.size() || (isSilent && length < expected.sent.size()),
          "the client says all that it must, unless it ran out of time");
  require(areEqual(ByteView(sent).first(length), ByteView(expected.sent).first(length)),
          "the client says nothing else");

  const linger reset{1, 0};  // leaves no port waiting behind
  setsockopt(proxy, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  closeSocket(proxy);
  control.close();
  control.close();
  require(lowestFreeDescriptor() == descriptor, "no descriptor is left open");
}

std::vector<Bytes> seeds() {
  const Bytes ipv4{5, 0, 0, 1, 10, 1, 2, 3, 0x9C, 0x40};
  const Bytes name = joined({Bytes{5, 0, 0, 3, 10}, bytesOf("relay.test"), Bytes{1, 2}});
  const Bytes group = joined({Bytes{5, 0, 0, 3, 9}, bytesOf("224.0.0.1"), Bytes{1, 2}});
  const Bytes ipv6 = joined({Bytes{5, 0, 0, 4}, Bytes(16, 0x20), Bytes{1, 2}});
  std::vector<Bytes> all{{0, 5, 0xFF},
                         {0, 4, 0},
                         {0, 5, 0, 5, 7, 0, 1},
                         {0, 5, 0, 5, 0, 0, 2},
                         {1, 5, 2, 1, 1},
                         {1, 5, 2, 5, 0},
                         {0, 5, 2},
                         {0xE0, 5},
                         {5, 5, 2},
                         {4, 5, 2}};
  for (const Bytes& reply :
       {ipv4, name, group, ipv6, Bytes{5, 0, 0, 3, 0, 9, 9}, Bytes{5, 0, 0, 1}}) {
    all.push_back(joined({Bytes{0, 5, 0}, reply}));
    all.push_back(joined({Bytes{1, 5, 2, 1, 0}, reply}));
    all.push_back(joined({Bytes{3, 5, 2, 1, 0}, reply}));
  }
  all.push_back(joined({Bytes{0xE1, 5, 2, 1, 0}, ipv4}));
  return all;
}

}  // namespace zk::fuzz
