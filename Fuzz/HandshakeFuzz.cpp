// The SOCKS5 handshake with a proxy that answers anything. The proxy is a listener on the loopback
// that has said all it will say before the handshake begins, so that no outcome depends on timing.

#include <array>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include "Base/Endpoint.h"
#include "Fuzz.h"
#include "Loopback/KitSocket.h"
#include "Platform/Resolver.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {

// In place of the system's resolver: knows numeric addresses and no names.
Resolution resolveUDPv4(const std::string& host, const std::string& port, Deadline,
                        const StopSignal*) {
  const auto parsed = parseAddress(host);
  if (!parsed) {
    return {{}, "no such name"};
  }
  const sockaddr_in address = Endpoint{*parsed, parsePort(port).value()}.socketAddress();
  ResolvedAddress resolved{AF_INET, {}};
  std::memcpy(&resolved.address, &address, sizeof address);
  return {{resolved}, {}};
}

Resolution resolveTCP(const std::string& host, const std::string& port, Deadline deadline,
                      const StopSignal* stop) {
  return resolveUDPv4(host, port, deadline, stop);
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

// The client's side of RFC 1928 and RFC 1929 as the harness has it, with a proxy that says
// `answers` and no more.
class Conversation {
 public:
  Conversation(ByteView answers, const Text& user, const Text& password) : input_(answers) {
    try {
      talk(user, password);
    } catch (const Kind kind) {
      error = kind;
    }
  }

  std::optional<Kind> error;
  std::string relay = "127.0.0.1";
  std::uint16_t port = 0;
  Bytes said;             // by the client, up to where it gives up
  bool isSilent = false;  // it gives up because it waits for what does not come

 private:
  static void check(bool holds, Kind otherwise) {
    if (!holds) {
      throw otherwise;
    }
  }

  ByteView hear(std::size_t count) {
    isSilent = input_.rest().size() < count;
    check(!isSilent, Kind::connectionFailed);
    return input_.take(count);
  }

  void talk(const Text& user, const Text& password) {
    const bool canLogIn = user && password;
    check(!canLogIn || std::max(user->size(), password->size()) <= 255, Kind::authFailed);
    said = canLogIn ? Bytes{5, 2, 0, 2} : Bytes{5, 1, 0};
    const ByteView choice = hear(2);
    check(choice[0] == 5, Kind::protocolError);
    check(choice[1] == 0 || (choice[1] == 2 && canLogIn), Kind::authFailed);
    if (choice[1] == 2) {
      said = joined({said, Bytes{1, static_cast<std::uint8_t>(user->size())}, bytesOf(*user),
                     Bytes{static_cast<std::uint8_t>(password->size())}, bytesOf(*password)});
      const ByteView status = hear(2);
      check(status[0] == 1, Kind::protocolError);
      check(status[1] == 0, Kind::authFailed);
    }

    said = joined({said, Bytes{5, 3, 0, 1, 0, 0, 0, 0, 0, 0}});
    const ByteView reply = hear(4);
    const std::uint8_t type = reply[3];
    check(reply[0] == 5, Kind::protocolError);
    check(reply[1] == 0, Kind::udpAssociateRejected);
    check(type == 1 || type == 3 || type == 4, Kind::protocolError);
    const ByteView address = hear(type == 1 ? 4 : type == 4 ? 16 : hear(1)[0]);
    port = readUInt16(hear(2), 0);
    check(port != 0, Kind::protocolError);
    check(type != 4, Kind::connectionFailed);
    const std::string text = type == 3 ? domainNameText(address) : dottedQuad(address);
    if (text.empty() || text == "0.0.0.0") {
      return;  // the proxy's own address
    }
    const auto parsed = parseAddress(text);
    check(parsed.has_value(), Kind::connectionFailed);
    relay = text;
    check(*parsed >> 24 != 0 && *parsed >> 28 != 14 && *parsed != UINT32_MAX, Kind::protocolError);
  }

  Input input_;
};

int lowestFreeDescriptor() {
  const int descriptor = dup(0);
  close(descriptor);
  return descriptor;
}

}  // namespace

void run(ByteView bytes) {
  static const auto listener = loopback::KitSocket::listener();
  static const std::uint16_t port = listener.port();
  static const std::array<Text, 5> credentials{Text(), "", "of-the-proxy", std::string(255, 'o'),
                                               std::string(256, 'o')};
  Input input(bytes);
  const std::uint8_t choice = input.octet();
  const Text& user = credentials[choice % 5];
  const Text& password = credentials[choice / 5 % 5];
  Bytes answers = joined({input.take(1024)});
  if (choice < 0xE0) {
    answers.resize(answers.size() + 600);  // waiting for silence to end costs 20 ms each time
  }

  const int descriptor = lowestFreeDescriptor();
  const Conversation expected(answers, user, password);
  const bool isSilent = expected.isSilent;
  SOCKS5Control control("127.0.0.1", port, user, password,
                        isSilent ? limitForSilence : limitOtherwise);
  control.connect();
  loopback::KitSocket proxy = listener.accepted();
  require(proxy.send(answers), "the proxy can speak");
  shutdown(proxy.get(), SHUT_WR);

  std::optional<Kind> error;
  SOCKS5Control::RelayEndpoint endpoint;
  try {
    endpoint = control.performHandshakeAndUDPAssociate();
  } catch (const SOCKS5Error& failure) {
    error = failure.kind();
    const std::string said(answers.begin(), answers.end());  // the proxy may quote what it likes
    for (const std::string_view secret : {"of-the-proxy", "oooooooooooo"}) {
      require(failure.description().find(secret) == std::string::npos ||
                  said.find(secret) != std::string::npos,
              "no description holds a credential");
    }
  }
  require(error == expected.error, "the outcome is the one the answers call for");
  require(error || (endpoint.relayHost == expected.relay && endpoint.relayPort == expected.port &&
                    endpoint.relayAddress.ip() == expected.relay &&
                    endpoint.relayAddress.port == expected.port),
          "the relay is where the proxy says");

  Bytes heard(2048);
  const ssize_t count = recv(proxy.get(), heard.data(), heard.size(), MSG_DONTWAIT);
  heard.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  const Bytes& said = expected.said;
  require(isSilent ? textOf(said).starts_with(textOf(heard)) : heard == said,
          "the client says just what it must, unless it ran out of time");

  const linger reset{1, 0};  // leaves no port waiting behind
  setsockopt(proxy.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  proxy.reset();
  control.close();
  control.close();
  require(lowestFreeDescriptor() == descriptor, "no descriptor is left open");
}

std::vector<Bytes> seeds() {
  // The first octet chooses credentials: none, good ones, those that just fit, one that is too
  // long, a user name alone; and good ones when silence is not put off.
  std::vector<Bytes> all{{237, 5}};
  for (const std::uint8_t choice : std::to_array<std::uint8_t>({0, 12, 18, 22, 2})) {
    for (const Bytes& login : {Bytes{5}, Bytes{4, 0}, Bytes{5, 0xFF}, Bytes{5, 0},
                               Bytes{5, 2, 1, 0}, Bytes{5, 2, 1, 1}}) {
      for (const Bytes& reply :
           {Bytes{5, 0, 0, 1, 10, 1, 2, 3, 0x9C, 0x40},
            joined({Bytes{5, 0, 0, 3, 10}, bytesOf("relay.test"), Bytes{1, 2}}),
            joined({Bytes{5, 0, 0, 3, 9}, bytesOf("224.0.0.1"), Bytes{1, 2}}),
            joined({Bytes{5, 0, 0, 4}, Bytes(16, 0x20), Bytes{1, 2}}), Bytes{5, 0, 0, 3, 0, 9, 9},
            Bytes{5, 0, 0, 1}, Bytes{5, 7, 0, 1}}) {
        all.push_back(joined({Bytes{choice}, login, reply}));
      }
    }
  }
  return all;
}

}  // namespace zk::fuzz
