#include "ZelkorSeal/FlowTable.h"

#include "ZelkorSeal/Seal.h"

namespace zk {
namespace {

constexpr std::uint32_t gateways = 99;  // SealNetwork::gateway and those behind it
constexpr std::uint32_t firstPort = 1024;
constexpr std::uint32_t ports = 65536 - firstPort;
constexpr std::chrono::nanoseconds rest = std::chrono::seconds(60);
constexpr unsigned maxQuietSweeps = 5;

Endpoint numberAt(std::uint32_t index) {
  return {SealNetwork::gateway + index / ports,
          static_cast<std::uint16_t>(firstPort + index % ports)};
}

std::uint32_t indexOf(const Endpoint& number) {
  return (number.address - SealNetwork::gateway) * ports + number.port - firstPort;
}

std::uint64_t keyOf(const Endpoint& program, const Endpoint& far) {
  return far.number() << 16 | program.port;
}

}  // namespace

bool FlowTable::isNumber(const Endpoint& endpoint) {
  return endpoint.address - SealNetwork::gateway < gateways && endpoint.port >= firstPort;
}

Flow* FlowTable::ofProgram(const Endpoint& program, const Endpoint& far) const {
  const auto found = flows_.find(keyOf(program, far));
  return found == flows_.end() ? nullptr : found->second.get();
}

Flow* FlowTable::ofNumber(const Endpoint& number) const {
  const auto found = numbers_.find(number);
  return found == numbers_.end() ? nullptr : found->second;
}

Flow* FlowTable::add(const Endpoint& program, const Endpoint& far) {
  std::uint32_t index = 0;
  if (flows_.size() >= maxFlows || !takeNumber(index)) {
    return nullptr;
  }
  auto flow = std::make_unique<Flow>();
  flow->program = program;
  flow->far = far;
  flow->number = numberAt(index);
  Flow* const added = flow.get();
  numbers_[flow->number] = added;
  flows_[keyOf(program, far)] = std::move(flow);
  return added;
}

// One that has rested long enough is taken before one that was never given, so that no more are
// remembered than there were connections in that time.
bool FlowTable::takeNumber(std::uint32_t& index) {
  if (!resting_.empty() && std::chrono::nanoseconds(clock_() - resting_.front().since) >= rest) {
    index = resting_.front().index;
    resting_.pop_front();
    return true;
  }
  index = fresh_;
  return fresh_ < gateways * ports && ++fresh_ > 0;
}

void FlowTable::remove(const Flow& flow) {
  resting_.push_back({indexOf(flow.number), clock_()});
  numbers_.erase(flow.number);
  flows_.erase(keyOf(flow.program, flow.far));
}

bool FlowTable::isLast(Flow& flow, const Packet& segment, Side from) {
  flow.quietSweeps = 0;
  Flow::End& own = flow.ends[from == Side::program ? 0 : 1];
  Flow::End& other = flow.ends[from == Side::program ? 1 : 0];
  if (segment.has(Packet::fin)) {
    own.hasEnded = true;
    own.behind = segment.nextSequence();
  }
  if (segment.has(Packet::ack) && other.hasEnded) {
    const auto beyond = static_cast<std::int32_t>(segment.acknowledged() - other.behind);
    other.isAcknowledged |= beyond >= 0;
  }
  return segment.has(Packet::rst) || (own.isAcknowledged && other.isAcknowledged);
}

void FlowTable::sweep(const std::function<bool(const Flow&)>& isForgotten) {
  for (auto next = flows_.begin(); next != flows_.end();) {
    Flow& flow = *(next++)->second;
    if (++flow.quietSweeps > maxQuietSweeps && isForgotten(flow)) {
      remove(flow);
    }
  }
}

}  // namespace zk
