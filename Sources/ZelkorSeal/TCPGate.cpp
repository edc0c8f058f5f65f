#include "ZelkorSeal/TCPGate.h"

#include <system_error>
#include <utility>

#include "ZelkorSeal/Seal.h"

namespace zk {
namespace {

using Reply = SOCKS5Request::Reply;
using Side = FlowTable::Side;

constexpr Endpoint listenerAddress{SealNetwork::address, SealNetwork::listenerPort};
constexpr std::size_t maxSYN = 256;  // with all options of IP and TCP it has 120 octets
constexpr std::chrono::seconds sweepInterval{60};
constexpr std::chrono::milliseconds acceptPause{100};

}  // namespace

TCPGate::TCPGate(EventLoop& loop, ProxyConnector& connector, Descriptor listener, const Tun& tun,
                 LogCallback log)
    : loop_(loop),
      connector_(connector),
      listener_(std::move(listener)),
      tun_(tun),
      log_(std::move(log)),
      flows_([&loop] { return loop.now(); }) {
  TCPSocket::prepareToCarry(listener_.get());
  loop_.watch(listener_.get(), *this);
  sweep();
}

TCPGate::~TCPGate() {
  loop_.unwatch(listener_.get());
  loop_.cancel(sweepTimer_);
  for (const auto& [id, connection] : connections_) {
    if (connection.limit) {
      loop_.cancel(*connection.limit);
    }
  }
  if (acceptTimer_) {
    loop_.cancel(*acceptTimer_);
  }
}

// ---- Segments ----------------------------------------------------------------------------------

void TCPGate::takeFromProgram(Packet& segment, const Endpoint& target) {
  const bool begins = segment.has(Packet::syn) && !segment.has(Packet::ack);
  Flow* flow = flows_.ofProgram(segment.source(), segment.destination());
  if (flow != nullptr && begins && flow->ends[0].hasEnded) {  // the program uses its port again
    forget(*flow);
    flow = nullptr;
  }
  if (flow != nullptr) {
    Connection* const connection = connectionOf(*flow);
    if (connection == nullptr || !connection->opening) {
      forward(*flow, segment, Side::program);
    } else if (begins && segment.octets().size() <= maxSYN) {
      connection->syn.assign(segment.octets().begin(), segment.octets().end());
    }
    return;
  }
  if (!begins) {
    answerStray(segment);
    return;
  }
  if (segment.octets().size() > maxSYN) {
    return;
  }
  flow = connections_.size() < maxConnections ? flows_.add(segment.source(), segment.destination())
                                              : nullptr;
  if (flow == nullptr) {
    logLine(log_, FMT_COMPILE("TCP to {}: refused, too many connections"), target.text());
    tun_.write(PacketAnswer::reset(segment));
    return;
  }
  flow->connection = open(target);
  Connection& connection = connections_.at(flow->connection);
  connection.number = flow->number;
  connection.syn.assign(segment.octets().begin(), segment.octets().end());
}

void TCPGate::takeFromListener(Packet& segment) {
  Flow* const flow = flows_.ofNumber(segment.destination());
  if (flow != nullptr) {
    forward(*flow, segment, Side::listener);
  } else {
    answerStray(segment);
  }
}

void TCPGate::forward(Flow& flow, Packet& segment, Side from) {
  const bool isLast = FlowTable::isLast(flow, segment, from);
  if (from == Side::program) {
    segment.readdress(flow.number, listenerAddress);
  } else {
    segment.readdress(flow.far, flow.program);
  }
  tun_.writeBack(segment.octets());
  if (isLast) {
    forget(flow);
  }
}

void TCPGate::forget(const Flow& flow) {
  const Connection* const connection = connectionOf(flow);
  if (connection != nullptr && !connection->bridge) {  // not accepted, and will not be
    giveUp(flow.connection);
  } else {
    flows_.remove(flow);
  }
}

void TCPGate::answerStray(const Packet& segment) {
  if (!segment.has(Packet::rst)) {
    tun_.write(PacketAnswer::reset(segment));
  }
}

// ---- Connections -------------------------------------------------------------------------------

std::uint64_t TCPGate::open(const Endpoint& target) {
  const std::uint64_t id = ++made_;
  Connection& connection = connections_[id];
  connection.target = target;
  connection.opening = connector_.connect(
      target, [this, id](TCPSocket socket, Reply reply, std::string_view reason) {
        onOpened(id, std::move(socket), reply, reason);
      });
  return id;
}

void TCPGate::carry(TCPSocket program, const Endpoint& target) {
  if (connections_.size() >= maxConnections) {
    program.abort();
    return;
  }
  connections_.at(open(target)).program = std::move(program);
}

void TCPGate::onOpened(std::uint64_t id, TCPSocket socket, Reply reply, std::string_view reason) {
  Connection& connection = connections_.at(id);
  if (reply != Reply::succeeded) {
    logLine(log_, FMT_COMPILE("TCP to {}: not connected: {}"), connection.target.text(), reason);
    refuse(connection, reply);
    connections_.erase(id);
    return;
  }
  logLine(log_, FMT_COMPILE("TCP to {}: connected"), connection.target.text());
  connection.opening.reset();
  connection.proxy = std::move(socket);
  if (!connection.number) {
    join(id, std::move(connection.program));
    return;
  }
  connection.limit = loop_.after(acceptLimit, [this, id] { giveUp(id); });
  Bytes syn = std::move(connection.syn);
  if (auto segment = Packet::parse(syn)) {
    forward(*flows_.ofNumber(*connection.number), *segment, Side::program);
  }
}

void TCPGate::refuse(Connection& connection, Reply reply) {
  if (!connection.number) {
    connection.program.abort();
    return;
  }
  flows_.remove(*flows_.ofNumber(*connection.number));
  const auto segment = Packet::parse(connection.syn);
  if (!segment) {
    return;
  }
  using PacketAnswer::Unreachable;
  tun_.write(reply == Reply::refused ? PacketAnswer::reset(*segment)
                                     : PacketAnswer::unreachable(*segment,
                                                                 reply == Reply::networkUnreachable
                                                                     ? Unreachable::network
                                                                     : Unreachable::host,
                                                                 SealNetwork::gateway));
}

void TCPGate::onReadable() {
  Endpoint from;
  try {
    while (auto program = TCPSocket::accepted(listener_.get(), from)) {
      const Flow* const flow = flows_.ofNumber(from);
      const Connection* const connection = flow != nullptr ? connectionOf(*flow) : nullptr;
      if (connection != nullptr && connection->proxy) {
        join(flow->connection, std::move(*program));
      } else {
        program->abort();
      }
    }
  } catch (const std::system_error&) {  // no descriptor to be had: later there may be
    loop_.setInterest(listener_.get(), {});
    acceptTimer_ = loop_.after(acceptPause, [this] {
      acceptTimer_.reset();
      loop_.setInterest(listener_.get(), {.readable = true});
    });
  }
}

void TCPGate::join(std::uint64_t id, TCPSocket program) {
  Connection& connection = connections_.at(id);
  if (const auto limit = std::exchange(connection.limit, std::nullopt)) {
    loop_.cancel(*limit);
  }
  const auto onEnd = [this, id](bool wasReset) {
    const auto ended = connections_.extract(id);
    const Connection& over = ended.mapped();
    logLine(log_, FMT_COMPILE("TCP to {}: {}, {} octets out, {} in"), over.target.text(),
            wasReset ? "reset" : "ended", over.bridge->octetsToFar(), over.bridge->octetsToNear());
  };
  try {
    connection.bridge = std::make_unique<StreamBridge>(loop_, conduits_, std::move(program),
                                                       std::move(connection.proxy), onEnd);
  } catch (const std::system_error&) {  // the loop can watch no more
    connections_.erase(id);
  }
}

// Neither accepted nor ever to be.
void TCPGate::giveUp(std::uint64_t id) {
  const auto given = connections_.extract(id);
  Connection& connection = given.mapped();
  if (connection.limit) {
    loop_.cancel(*connection.limit);
  }
  logLine(log_, FMT_COMPILE("TCP to {}: given up by the program"), connection.target.text());
  flows_.remove(*flows_.ofNumber(*connection.number));
  connection.proxy.abort();
}

std::optional<std::uint64_t> TCPGate::passingOn() const {
  std::optional<std::uint64_t> octets;
  for (const auto& [id, connection] : connections_) {
    if (connection.bridge && !connection.bridge->hasPassedOn()) {
      octets = octets.value_or(0) + connection.bridge->octetsToFar();
    } else if (connection.proxy) {  // about to be accepted
      octets = octets.value_or(0);
    }
  }
  return octets;
}

TCPGate::Connection* TCPGate::connectionOf(const Flow& flow) {
  const auto found = connections_.find(flow.connection);
  return found == connections_.end() ? nullptr : &found->second;
}

void TCPGate::sweep() {
  sweepTimer_ = loop_.after(sweepInterval, [this] {
    flows_.sweep([this](const Flow& flow) { return connectionOf(flow) == nullptr; });
    sweep();
  });
}

}  // namespace zk
