#include "ZelkorSeal/ProxyConnection.h"

#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "ZelkorSOCKS5/SOCKS5Error.h"

namespace zk {
namespace {

using Reply = SOCKS5Request::Reply;

// To the proxy itself: as long as everywhere.
constexpr std::chrono::seconds connectLimit{10};
// For all of it: a little longer than the system of the program tries (127 seconds).
constexpr std::chrono::seconds totalLimit{130};

}  // namespace

ProxyConnection::ProxyConnection(EventLoop& loop, ProxyWay& way, const ProxyAccess& access,
                                 const Endpoint& to, Done done)
    : loop_(loop),
      way_(way),
      to_(to),
      done_(std::move(done)),
      handshake_(access.username, access.password) {
  limit_ = loop_.after(totalLimit, [this] { fail("no answer", Reply::generalFailure); });
  if (way_.known()) {
    start();
  } else {
    ticket_ = way_.await([this] {
      ticket_.reset();
      if (way_.known()) {
        start();
      } else {
        fail(way_.failure(), Reply::generalFailure);
      }
    });
  }
}

ProxyConnection::~ProxyConnection() {
  loop_.cancel(limit_);
  if (ticket_) {
    way_.cancel(*ticket_);
  }
  if (socket_) {
    loop_.unwatch(socket_.descriptor());
  }
}

void ProxyConnection::start() {
  taken_ = *way_.known();
  loop_.cancel(limit_);
  try {
    socket_ =
        TCPSocket::connecting(reinterpret_cast<const sockaddr&>(taken_.address), taken_.interface);
    TCPSocket::prepareToCarry(socket_.descriptor());
    loop_.watch(socket_.descriptor(), *this);
    loop_.setInterest(socket_.descriptor(), {.writable = true});
    limit_ = loop_.after(connectLimit, [this] {
      way_.doubt(taken_);
      fail("connect timeout", Reply::generalFailure);
    });
  } catch (const std::system_error& error) {  // not from within the constructor
    way_.doubt(taken_);
    limit_ = loop_.after(
        {}, [this, what = std::string(error.what())] { fail(what, Reply::generalFailure); });
  }
}

void ProxyConnection::onWritable() {
  if (const auto error = socket_.error()) {
    way_.doubt(taken_);
    fail("connect: " + *error, Reply::generalFailure);
    return;
  }
  loop_.cancel(limit_);
  limit_ = loop_.after(totalLimit, [this] { fail("no answer", Reply::generalFailure); });
  loop_.setInterest(socket_.descriptor(), {.readable = true});
  try {
    say(handshake_.message());
  } catch (const SOCKS5Error& error) {
    fail(error.description(), Reply::generalFailure);
  }
}

void ProxyConnection::onReadable() {
  try {
    converse();
  } catch (const SOCKS5Error& error) {
    fail(error.description(), Reply::generalFailure);
  }
}

void ProxyConnection::converse() {
  if (!handshake_.isDone()) {
    if (const auto answer = hear(SOCKS5Handshake::answerSize)) {
      handshake_.take(*answer);
      say(handshake_.isDone() ? SOCKS5Request::encode(SOCKS5Request::Command::connect, to_)
                              : handshake_.message());
      answer_.clear();
    }
    return;
  }
  while (const auto reply = hear(SOCKS5Request::replySize(answer_))) {
    const auto code = static_cast<Reply>((*reply)[1]);
    if (code != Reply::succeeded) {
      fail(fmt::format("reply {}", (*reply)[1]), code);
      return;
    }
    if (reply->size() == SOCKS5Request::replySize(*reply)) {
      loop_.unwatch(socket_.descriptor());
      conclude(std::move(socket_), code, "");
      return;
    }
  }
}

// A message is far smaller than the room that a new connection has.
void ProxyConnection::say(ByteView octets) {
  if (socket_.send(octets).octets != octets.size()) {
    throw SOCKS5Error::connectionFailed("write");
  }
}

// The answer once `size` octets of it are there. Nothing beyond them is taken from the connection.
std::optional<ByteView> ProxyConnection::hear(std::size_t size) {
  const std::size_t held = answer_.size();
  answer_.resize(size);
  const Transfer came = socket_.receive(std::span(answer_).subspan(held));
  answer_.resize(held + came.octets);
  if (came.state == Transfer::State::ended || came.state == Transfer::State::failed) {
    throw SOCKS5Error::connectionFailed("the proxy ended the connection");
  }
  return answer_.size() == size ? std::optional<ByteView>(answer_) : std::nullopt;
}

void ProxyConnection::fail(std::string_view reason, Reply reply) {
  conclude(TCPSocket(), reply, reason);
}

void ProxyConnection::conclude(TCPSocket socket, Reply reply, std::string_view reason) {
  loop_.cancel(limit_);
  const Done done = std::exchange(done_, nullptr);  // which may destroy this
  done(std::move(socket), reply, reason);
}

}  // namespace zk
