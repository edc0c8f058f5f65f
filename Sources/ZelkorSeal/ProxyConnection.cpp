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

ProxyConnection::ProxyConnection(EventLoop& loop, ProxyWay& way, const ProxyAccess& access)
    : loop_(loop), way_(way), access_(access) {
  begin();
}

ProxyConnection::~ProxyConnection() {
  loop_.cancel(limit_);
  if (ticket_) {
    way_.cancel(*ticket_);
  }
  close();
}

void ProxyConnection::connectTo(const Endpoint& to, Done done) {
  to_ = to;
  done_ = std::move(done);
  if (isConnected_) {
    expect(totalLimit);
  }
  if (handshake_->isDone()) {
    wasSpare_ = true;
    request();
  }
}

void ProxyConnection::begin() {
  handshake_.emplace(access_.username, access_.password);
  answer_.clear();
  expect(totalLimit);
  if (way_.known()) {
    start();
    return;
  }
  ticket_ = way_.await([this] {
    ticket_.reset();
    if (way_.known()) {
      start();
    } else {
      fail(way_.failure());
    }
  });
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
    limit_ = loop_.after(connectLimit, [this] { failOnTheWay("connect timeout"); });
  } catch (const std::system_error& error) {  // not from within a call of ours
    limit_ = loop_.after({}, [this, what = std::string(error.what())] { failOnTheWay(what); });
  }
}

void ProxyConnection::onWritable() {
  if (const auto error = socket_.error()) {
    failOnTheWay("connect: " + *error);
    return;
  }
  isConnected_ = true;
  expect(done_ ? totalLimit : spareLimit);
  loop_.setInterest(socket_.descriptor(), {.readable = true});
  say(handshake_->message());
}

void ProxyConnection::onReadable() {
  try {
    converse();
  } catch (const SOCKS5Error& error) {
    if (std::exchange(wasSpare_, false) && answer_.empty()) {
      close();
      begin();
    } else {
      fail(error.description());
    }
  }
}

void ProxyConnection::converse() {
  if (!handshake_->isDone()) {
    if (const auto answer = hear(SOCKS5Handshake::answerSize)) {
      handshake_->take(*answer);
      answer_.clear();
      if (!handshake_->isDone()) {
        say(handshake_->message());
      } else if (to_) {
        request();
      }
    }
    return;
  }
  if (!to_) {  // it has ended, or says what nobody has asked
    close();
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

void ProxyConnection::request() {
  say(SOCKS5Request::encode(SOCKS5Request::Command::connect, *to_));
}

// A message is far smaller than the room that a new connection has. What a proxy that has ended
// does not take, onReadable() hears of.
void ProxyConnection::say(ByteView octets) {
  socket_.send(octets);
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

void ProxyConnection::expect(std::chrono::seconds within) {
  loop_.cancel(limit_);
  limit_ = loop_.after(within, [this] { fail("no answer"); });
}

// What is asked for nobody says nothing against the way: somebody's next will.
void ProxyConnection::failOnTheWay(std::string_view reason) {
  if (done_) {
    way_.doubt(taken_);
  }
  fail(reason);
}

void ProxyConnection::fail(std::string_view reason, Reply reply) {
  close();
  conclude(TCPSocket(), reply, reason);
}

void ProxyConnection::conclude(TCPSocket socket, Reply reply, std::string_view reason) {
  loop_.cancel(limit_);
  if (const Done done = std::exchange(done_, nullptr)) {  // which may destroy this
    done(std::move(socket), reply, reason);
  }
}

// The system repeats an orderly end until it is acknowledged, also by an interface that is up again
// and has no route yet: then it asks the local network for the proxy. So a spare that waits while
// the way is lost goes with a reset, which is said once. Not with an answer on its way: the system
// refuses that by whatever route there is.
void ProxyConnection::close() {
  if (socket_) {
    loop_.unwatch(socket_.descriptor());
    if (!to_ && handshake_->isDone() && !way_.isSettled()) {
      socket_.abort();
    }
    socket_ = TCPSocket();
  }
  isConnected_ = false;
}

}  // namespace zk
