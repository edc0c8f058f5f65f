#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>

#include "ZelkorSeal/Packet.h"

namespace zk {

/// One TCP connection of a program as the tun sees it, and its number: the gateway's address and
/// port by which the listener knows it.
struct Flow {
  Endpoint program;
  Endpoint far;
  Endpoint number;

  // What each side has sent last, the program (0) and the listener (1).
  struct End {
    std::uint32_t behind = 0;  // its FIN
    bool hasEnded = false;
    bool isAcknowledged = false;
  };
  End ends[2];
  unsigned quietSweeps = 0;
  std::uint64_t connection = 0;  // its user's name for what carries it
};

/// The flows that there are. A number lives until both FINs are acknowledged or a RST has passed;
/// then it rests for as long as the system may remember its connection (TIME_WAIT), and the one
/// that is free longest is taken first. The loop's thread.
class FlowTable {
 public:
  static constexpr std::size_t maxFlows = 16384;
  /// Nanoseconds on a clock that only runs forward.
  using Clock = std::function<std::uint64_t()>;
  explicit FlowTable(Clock clock) : clock_(std::move(clock)) {}

  static bool isNumber(const Endpoint& endpoint);

  /// Absent (null) when there is none. They live until they are removed.
  Flow* ofProgram(const Endpoint& program, const Endpoint& far) const;
  Flow* ofNumber(const Endpoint& number) const;
  /// Null when there are too many, or no number is free.
  Flow* add(const Endpoint& program, const Endpoint& far);
  void remove(const Flow& flow);

  /// Takes note of a segment that passes. Whether it is the last one of its flow.
  enum class Side : std::uint8_t { program, listener };
  static bool isLast(Flow& flow, const Packet& segment, Side from);

  /// Removes the flows that `isForgotten` and through which nothing has passed for minutes: their
  /// system has given them up without a word. Once a minute.
  void sweep(const std::function<bool(const Flow&)>& isForgotten);

  std::size_t size() const { return flows_.size(); }

 private:
  struct Resting {
    std::uint32_t index;
    std::uint64_t since;
  };
  bool takeNumber(std::uint32_t& index);

  const Clock clock_;
  // By the far end and the program's port: all programs have the same address.
  std::unordered_map<std::uint64_t, std::unique_ptr<Flow>> flows_;
  std::unordered_map<Endpoint, Flow*> numbers_;
  std::deque<Resting> resting_;  // the longest first
  std::uint32_t fresh_ = 0;      // numbers from here on have never been given
};

}  // namespace zk
