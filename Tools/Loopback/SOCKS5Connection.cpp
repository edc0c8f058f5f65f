#include "Loopback/SOCKS5Connection.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Loopback/SOCKS5Association.h"

namespace zk::loopback {
namespace {

using Action = SOCKS5Step::Action;

using namespace std::chrono_literals;

constexpr std::uint8_t version = 0x05;
constexpr std::uint8_t noAuthentication = 0x00;
constexpr std::uint8_t usernamePassword = 0x02;
constexpr std::uint8_t noneAcceptable = 0xFF;
constexpr std::uint8_t loginVersion = 0x01;
constexpr std::uint8_t commandConnect = 0x01;
constexpr std::uint8_t commandUDPAssociate = 0x03;
constexpr std::uint8_t replyGeneralFailure = 0x01;
constexpr std::uint8_t replyNotAllowed = 0x02;
constexpr std::uint8_t replyRefused = 0x05;
constexpr std::uint8_t replyCommandNotSupported = 0x07;
constexpr std::uint8_t typeIPv4 = 0x01;
constexpr std::uint8_t typeDomain = 0x03;
constexpr std::uint8_t typeIPv6 = 0x04;

constexpr std::size_t recordedOctets = 65536;

Bytes refusal(std::uint8_t code) {
  return {version, code, 0, typeIPv4, 0, 0, 0, 0, 0, 0};
}

}  // namespace

SOCKS5Connection::SOCKS5Connection(SOCKS5Core& core, std::size_t number, KitSocket socket)
    : core_(core), number_(number), socket_(std::move(socket)) {
  const int on = 1;
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void SOCKS5Connection::start() {
  watch_.emplace(core_.loop, socket_.get(), [this] {
    const auto self = shared_from_this();
    takeOctets();
  });
  perform(core_.script.onAccept, {}, false);
}

void SOCKS5Connection::end() {
  if (ended_) {
    return;
  }
  ended_ = true;
  watch_.reset();
  tunnel_.reset();
  if (association_) {
    core_.associations.erase(*association_);
  }
  core_.connections.erase(number_);
}

void SOCKS5Connection::reset() {
  const linger none{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  end();
}

void SOCKS5Connection::takeOctets() {
  for (;;) {
    const auto count = recv(socket_.get(), core_.buffer.data(), core_.buffer.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
      break;
    }
    if (count <= 0) {
      end();
      return;
    }
    const ByteView octets(core_.buffer.data(), static_cast<std::size_t>(count));
    Bytes& record = core_.controlBytes[number_];
    const auto kept = std::min(octets.size(), recordedOctets - record.size());
    record.insert(record.end(), octets.begin(), octets.begin() + static_cast<std::ptrdiff_t>(kept));
    if (phase_ != Phase::done && !mute_) {
      unread_.insert(unread_.end(), octets.begin(), octets.end());
    }
  }
  converse();
}

/// Octets of the message that stands at the front of `unread_`; absent while it is not whole.
std::optional<std::size_t> SOCKS5Connection::lengthOfMessage() const {
  const Bytes& in = unread_;
  std::size_t length = 0;
  switch (phase_) {
    case Phase::greeting:
      length = in.size() < 2 ? 2 : std::size_t{2} + in[1];
      break;
    case Phase::login:
      length = in.size() < 2 ? 2 : std::size_t{3} + in[1];
      length += in.size() < length ? 0 : in[length - 1];
      break;
    case Phase::request:
      if (in.size() < 5) {
        length = 5;
      } else if (in[3] == typeDomain) {
        length = std::size_t{7} + in[4];
      } else {
        length = in[3] == typeIPv6 ? 22 : 10;
      }
      break;
    case Phase::done:
      return std::nullopt;
  }
  return in.size() < length ? std::nullopt : std::optional(length);
}

void SOCKS5Connection::converse() {
  while (!answering_ && !mute_ && !ended_) {
    const auto length = lengthOfMessage();
    if (!length) {
      return;
    }
    const auto behind = unread_.begin() + static_cast<std::ptrdiff_t>(*length);
    const Bytes message(unread_.begin(), behind);
    unread_.erase(unread_.begin(), behind);
    switch (phase_) {
      case Phase::greeting:
        handleGreeting(message);
        break;
      case Phase::login:
        handleLogin(message);
        break;
      case Phase::request:
        handleRequest(message);
        break;
      case Phase::done:
        break;
    }
  }
}

void SOCKS5Connection::handleGreeting(ByteView message) {
  const std::uint8_t wanted = core_.script.login ? usernamePassword : noAuthentication;
  const ByteView offered = message.subspan(2);
  const bool acceptable = std::find(offered.begin(), offered.end(), wanted) != offered.end();
  const Bytes proper{version, acceptable ? wanted : noneAcceptable};
  const Bytes answer = core_.script.greetingReply.value_or(proper);
  const std::uint8_t picked = answer.size() < 2 ? noneAcceptable : answer[1];
  phase_ = picked == noAuthentication   ? Phase::request
           : picked == usernamePassword ? Phase::login
                                        : Phase::done;
  perform(core_.script.onGreeting, answer, answer == proper && !acceptable);
}

void SOCKS5Connection::handleLogin(ByteView message) {
  const std::size_t userLength = message[1];
  const auto text = [](ByteView octets) { return std::string(octets.begin(), octets.end()); };
  const std::string user = text(message.subspan(2, userLength));
  const std::string password = text(message.subspan(3 + userLength));
  const auto& login = core_.script.login;
  const bool right = !login || (login->user == user && login->password == password);
  const Bytes proper{loginVersion, static_cast<std::uint8_t>(right ? 0x00 : 0x01)};
  const Bytes answer = core_.script.authReply.value_or(proper);
  phase_ = answer.size() >= 2 && answer[1] == 0x00 ? Phase::request : Phase::done;
  perform(core_.script.onAuth, answer, answer == proper && !right);
}

void SOCKS5Connection::handleRequest(ByteView message) {
  phase_ = Phase::done;
  if (message[1] == commandConnect && message[3] == typeIPv4) {
    connect({static_cast<std::uint32_t>(readUInt16(message, 4) << 16 | readUInt16(message, 6)),
             readUInt16(message, 8)});
    return;
  }
  const SOCKS5Script& script = core_.script;
  Bytes answer;
  if (message[1] != commandUDPAssociate) {
    answer = refusal(replyCommandNotSupported);
  } else if (core_.associations.size() >= script.sessionLimit) {
    answer = refusal(replyNotAllowed);
  } else if (script.replyCode != 0) {
    answer = refusal(script.replyCode);
  } else {
    answer = associate();
  }
  if (script.editAssociateReply) {
    answer = script.editAssociateReply(std::move(answer));
  }
  answer = script.associateReply.value_or(std::move(answer));
  perform(script.onAssociate, std::move(answer), !association_);
}

/// To somewhere on this machine, which takes no time.
void SOCKS5Connection::connect(const Endpoint& to) {
  const auto& connectTo = core_.script.connectTo;
  SOCKS5Script::Route route = connectTo ? connectTo(to) : SOCKS5Script::Route{to};
  try {
    if (route.reply == 0) {
      far_ = KitSocket::connectedTCP(route.to);
      fcntl(far_.get(), F_SETFL, O_NONBLOCK);
    }
  } catch (const std::system_error& error) {
    route.reply =
        error.code() == std::errc::connection_refused ? replyRefused : replyGeneralFailure;
  }
  perform(core_.script.onConnect, refusal(route.reply), route.reply != 0);
}

/// Makes the association and returns the proper answer.
Bytes SOCKS5Connection::associate() {
  const SOCKS5Script& script = core_.script;
  const std::size_t number = core_.counts.associations;
  std::unique_ptr<SOCKS5Association> made;
  try {
    made = std::make_unique<SOCKS5Association>(core_, number);
  } catch (const std::exception&) {  // no descriptor left
    return refusal(replyGeneralFailure);
  }
  const Endpoint relay = made->relayAddress();
  core_.frames.emplace_back();
  core_.associations.emplace(number, std::move(made));
  association_ = number;
  ++core_.counts.associations;

  Bytes answer{version, 0x00, 0x00, script.announceType};
  const auto octets = relay.octets();
  const Bytes address = script.announceAddress.value_or(Bytes(octets.begin(), octets.end()));
  if (script.announceType == typeDomain) {
    answer.push_back(static_cast<std::uint8_t>(address.size()));
  }
  answer.insert(answer.end(), address.begin(), address.end());
  const std::uint16_t port = script.announcePort.value_or(relay.port);
  answer.push_back(static_cast<std::uint8_t>(port >> 8));
  answer.push_back(static_cast<std::uint8_t>(port));
  return answer;
}

/// A client that has gone is noticed where octets are taken.
void SOCKS5Connection::perform(const SOCKS5Step& step, Bytes answer, bool closeBehind) {
  answering_ = true;
  const bool answers = !answer.empty();
  const auto act = [this, step, answer = std::move(answer), closeBehind] {
    switch (step.action) {
      case Action::answer:
      case Action::answerThenClose:
        socket_.send(answer);
        answered(closeBehind || (step.action == Action::answerThenClose && !answer.empty()));
        break;
      case Action::dribble:
        dribble(step.pace, answer, closeBehind);
        break;
      case Action::half:
        socket_.send(ByteView(answer).first(answer.size() / 2));
        mute_ = true;
        break;
      case Action::silence:
        mute_ = true;
        break;
      case Action::close:
        end();
        break;
      case Action::reset:
        reset();
        break;
    }
  };
  later(step.delay + (answers ? core_.script.distance : 0ms), act);
}

/// Unless the connection has ended by then.
void SOCKS5Connection::later(std::chrono::milliseconds delay, std::function<void()> action) {
  core_.loop.after(delay, [self = weak_from_this(), action = std::move(action)] {
    if (const auto connection = self.lock(); connection && !connection->ended_) {
      action();
    }
  });
}

void SOCKS5Connection::dribble(std::chrono::milliseconds pace, Bytes answer, bool closeBehind) {
  socket_.send(ByteView(answer).first(std::min<std::size_t>(answer.size(), 1)));
  if (answer.size() <= 1) {
    answered(closeBehind);
    return;
  }
  answer.erase(answer.begin());
  later(pace, [=, this] { dribble(pace, answer, closeBehind); });
}

void SOCKS5Connection::answered(bool closeBehind) {
  answering_ = false;
  if (closeBehind) {
    end();
  } else if (far_) {
    watch_.reset();
    tunnel_.emplace(core_.loop, core_.conduits, TCPSocket(Descriptor(dup(socket_.get()))),
                    TCPSocket(std::move(far_)),
                    [this](bool /*wasReset*/) { later({}, [this] { end(); }); });
  } else {
    converse();
  }
}

}  // namespace zk::loopback
