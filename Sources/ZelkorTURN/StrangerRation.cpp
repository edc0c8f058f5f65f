#include "ZelkorTURN/StrangerRation.h"

#include <algorithm>

namespace zk {
namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;

// A bucket that fills at `rate` and holds `depth` tokens: a token puts off the time at which it is
// full by what one takes to come. Empty is who would be full only after all have come.
struct Bucket {
  std::uint64_t rate;
  std::uint64_t depth;

  std::uint64_t after(std::uint64_t fullAt, std::uint64_t now) const {
    return std::max(fullAt, now) + nanosecondsPerSecond / rate;
  }
  bool holds(std::uint64_t fullAtNext, std::uint64_t now) const {
    return fullAtNext - now <= depth * nanosecondsPerSecond / rate;
  }
};

constexpr Bucket one{StrangerRation::perSecond, StrangerRation::depth};
constexpr Bucket all{StrangerRation::perSecondInAll, StrangerRation::depthInAll};

}  // namespace

bool StrangerRation::admits(std::uint16_t port, std::uint64_t now) {
  std::uint64_t& fullAt = (*fullAt_)[port];
  const std::uint64_t next = one.after(fullAt, now);
  const std::uint64_t nextInAll = all.after(allFullAt_, now);
  if (!one.holds(next, now) || !all.holds(nextInAll, now)) {
    return false;
  }
  fullAt = next;
  allFullAt_ = nextInAll;
  return true;
}

}  // namespace zk
