#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"

namespace zk::loopback {

/// What the proxy does with the answer that one step of a control connection calls for.
struct SOCKS5Step {
  enum class Action {
    answer,           // the whole answer in one piece
    silence,          // nothing, and the connection stays open
    half,             // the first half of the answer (rounded down), then silence
    dribble,          // the whole answer, one octet per `pace`
    answerThenClose,  // the whole answer, then the end of the stream
    close,            // the end of the stream without an answer
    reset,            // RST without an answer
  };
  Action action = Action::answer;
  std::chrono::milliseconds delay{0};  // before the action
  std::chrono::milliseconds pace{20};  // between the octets of `dribble`
};

struct SOCKS5Login {
  std::string user;
  std::string password;
};

/// How the proxy behaves. The default is a correct proxy without authentication.
struct SOCKS5Script {
  /// Asks for this user name and password (RFC 1929) and accepts no other.
  std::optional<SOCKS5Login> login{};

  /// Octets sent in place of the proper answers. The conversation goes on by what they say: with a
  /// greeting reply that picks method 2 a username/password message is read next.
  std::optional<Bytes> greetingReply{};
  std::optional<Bytes> authReply{};
  std::optional<Bytes> associateReply{};
  /// Changes the proper answer to UDP ASSOCIATE, for what depends on the port in its last two
  /// octets. Runs on the proxy's thread.
  std::function<Bytes(Bytes)> editAssociateReply{};

  /// The round trip between client and proxy: whatever the proxy sends to a client, by TCP or UDP,
  /// leaves so much later.
  std::chrono::milliseconds distance{0};
  /// The associations that there may be at a time; more are refused.
  std::size_t sessionLimit = SIZE_MAX;

  /// REP of the answer to UDP ASSOCIATE. Anything but 0 makes no association, and the connection is
  /// closed behind the answer.
  std::uint8_t replyCode = 0;
  /// ATYP and BND.ADDR of that answer: the octets of the address as they go on the wire, without
  /// the length octet of a domain name. Absent: the relay's true IPv4 address.
  std::uint8_t announceType = 0x01;
  std::optional<Bytes> announceAddress{};
  /// BND.PORT; absent: the relay's true port.
  std::optional<std::uint16_t> announcePort{};

  /// `dottedQuad` must be one.
  void announceIPv4(const std::string& dottedQuad) {
    announce(0x01, Endpoint{parseAddress(dottedQuad).value(), 0}.octets());
  }
  void announceDomain(const std::string& name) { announce(0x03, bytesOf(name)); }
  void announceIPv6(const std::array<std::uint8_t, 16>& octets) { announce(0x04, octets); }

  /// `onAccept` has no answer to send: all actions that would send one go on with the conversation,
  /// except `silence` and `half`, which read and record but never answer.
  SOCKS5Step onAccept{};
  SOCKS5Step onGreeting{};
  SOCKS5Step onAuth{};
  SOCKS5Step onAssociate{};
  SOCKS5Step onConnect{};

  /// Where a CONNECT to an IPv4 address leads in truth, or the REP that refuses it. Absent: there.
  /// Runs on the proxy's thread.
  struct Route {
    Endpoint to;
    std::uint8_t reply = 0;
  };
  std::function<Route(const Endpoint&)> connectTo{};

  /// What becomes of a frame that a client sends to its relay.
  enum class Relay {
    forward,  // its payload goes to the peer, answers come back with their true source
    dropAll,  // nothing goes out and nothing comes back
    garbage,  // each is answered with the datagrams of `garbage`, raw, and goes no further
    reflect,  // sent straight back unchanged, its destination becoming the source; payloads that
              // look like STUN are forwarded, so that an egress address can be found
  };
  Relay relay = Relay::forward;
  std::vector<Bytes> garbage{};
  /// Keeps a copy of every frame that clients send, for SOCKS5Server::frames().
  bool recordFrames = false;

 private:
  void announce(std::uint8_t type, ByteView octets) {
    announceType = type;
    announceAddress = Bytes(octets.begin(), octets.end());
  }
};

}  // namespace zk::loopback
