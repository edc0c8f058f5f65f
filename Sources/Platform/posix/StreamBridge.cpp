// Octets are moved through a pipe that is borrowed for as long as it holds something. A direction
// reads only while its pipe is empty and waits for room only while it is not: a slow end holds up
// what comes for it, at most Conduit::capacity, and nothing else.

#include "Platform/StreamBridge.h"

#include <system_error>
#include <utility>

namespace zk {
namespace {

using State = Transfer::State;

constexpr std::size_t mostIdle = 16;

// So many pieces of a direction in its turn, while more comes than this and all of it goes on.
constexpr int maxPieces = 4;
constexpr std::size_t wholePiece = std::size_t{64} << 10;

}  // namespace

std::unique_ptr<Conduit> ConduitPool::take() {
  if (idle_.empty()) {
    return std::make_unique<Conduit>();
  }
  auto conduit = std::move(idle_.back());
  idle_.pop_back();
  return conduit;
}

void ConduitPool::give(std::unique_ptr<Conduit> conduit) {
  if (idle_.size() < mostIdle) {
    idle_.push_back(std::move(conduit));
  }
}

StreamBridge::StreamBridge(EventLoop& loop, ConduitPool& conduits, TCPSocket near, TCPSocket far,
                           Ended ended)
    : loop_(loop),
      conduits_(conduits),
      near_(*this, std::move(near)),
      far_(*this, std::move(far)),
      ended_(std::move(ended)) {
  loop_.watch(near_.socket.descriptor(), near_);
  try {
    loop_.watch(far_.socket.descriptor(), far_);
  } catch (...) {
    loop_.unwatch(near_.socket.descriptor());
    throw;
  }
}

StreamBridge::~StreamBridge() {
  release(!hasPassedOn());
}

void StreamBridge::move(End& from) {
  End& to = otherThan(from);
  bool isWell = false;
  try {
    std::uint64_t before = 0;
    int pieces = 0;
    do {
      before = from.octets;
      isWell = transfer(from, to);
    } while (isWell && from.held() == 0 && from.octets - before >= wholePiece &&
             ++pieces < maxPieces);
    if (from.hasEnded && from.held() == 0 && !std::exchange(from.isToldOn, true)) {
      to.socket.endOutput();
    }
    updateInterest(near_);
    updateInterest(far_);
  } catch (const std::system_error&) {  // no pipe to be had
    isWell = false;
  }
  const bool isOver = near_.isToldOn && far_.isToldOn;
  if (!isWell || isOver) {
    close(!isWell);
  }
}

// One piece. Whether both sockets are well.
bool StreamBridge::transfer(End& from, End& to) {
  if (from.held() == 0 && !from.hasEnded) {
    if (!from.conduit) {
      from.conduit = conduits_.take();
    }
    const Transfer filled = from.conduit->fill(from.socket);
    from.hasEnded = filled.state == State::ended;
    if (filled.state == State::failed) {
      return false;
    }
  }
  if (from.held() > 0) {
    const Transfer drained = from.conduit->drain(to.socket);
    from.octets += drained.octets;
    if (drained.state == State::failed) {
      return false;
    }
  }
  if (from.conduit && from.held() == 0) {
    conduits_.give(std::move(from.conduit));
  }
  return true;
}

// A socket that has ended and is told nothing either may still be reset, which is all that is left
// to wait for. Once it has been told of the end too, it counts as failed for good.
void StreamBridge::updateInterest(End& end) {
  const End& other = otherThan(end);
  loop_.setInterest(end.socket.descriptor(), {.readable = !end.hasEnded && end.held() == 0,
                                              .writable = other.held() > 0,
                                              .failed = end.hasEnded && !other.isToldOn});
}

void StreamBridge::close(bool wasReset) {
  release(wasReset);
  if (const Ended ended = std::exchange(ended_, nullptr)) {
    ended(wasReset);
  }
}

void StreamBridge::release(bool wasReset) {
  for (End* const end : {&near_, &far_}) {
    if (end->socket) {
      loop_.unwatch(end->socket.descriptor());
      if (wasReset) {
        end->socket.abort();
      }
      end->socket = TCPSocket();
    }
    end->conduit.reset();
  }
}

}  // namespace zk
