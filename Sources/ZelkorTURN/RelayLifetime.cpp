#include "ZelkorTURN/RelayLifetime.h"

#include <map>
#include <utility>

#include "ZelkorSOCKS5/InterfaceScope.h"

namespace zk {
namespace {

// How often a relay that is cut off is looked at when nothing is told.
constexpr std::chrono::milliseconds lookInterval{250};
// Between two looks that is no busy moment but a suspended machine.
constexpr std::chrono::seconds longestGap{2};

bool hasPassed(std::chrono::nanoseconds time, std::uint64_t since, std::uint64_t now) {
  return std::chrono::nanoseconds(now - since) >= time;
}

}  // namespace

// One look at the machine, which asks once for each way: mostly all relays have the same.
class RelayLifetime::Look {
 public:
  explicit Look(Interfaces& interfaces) : interfaces_(interfaces) {}

  RouteAnswer hasRoute(const RelayWay& way) {
    return remembered(routes_, way, [&](const sockaddr& destination) {
      return interfaces_.askRoute(way.interface.value_or(0), destination);
    });
  }

  // Whether a relay that is opened now would have a way, while the interface of this one works.
  RouteAnswer isReplaceable(const RelayWay& way) {
    return remembered(others_, way, [&](const sockaddr& destination) {
      try {
        const bool works =
            !way.interface || interfaces_.stateOf(*way.interface) == InterfaceState::usable;
        return works && (interfaces_.hasRoute(0, destination) ||
                         InterfaceScope::interfaceFor(way.host, destination, std::nullopt,
                                                      interfaces_))
                   ? RouteAnswer::yes
                   : RouteAnswer::no;
      } catch (const LookFailed&) {
        return RouteAnswer::unknown;
      }
    });
  }

  // Whether closing it has the system look for the proxy where it is not: on the link of an
  // interface that has no route to it.
  bool mayBeClosed(const RelayWay& way) {
    if (hasRoute(way) == RouteAnswer::yes || !way.interface) {
      return true;
    }
    try {
      return interfaces_.stateOf(*way.interface) == InterfaceState::gone;
    } catch (const LookFailed&) {
      return false;
    }
  }

 private:
  using Answers = std::map<std::pair<std::optional<unsigned>, std::uint32_t>, RouteAnswer>;

  template <typename Ask>
  static RouteAnswer remembered(Answers& answers, const RelayWay& way, Ask ask) {
    const auto [entry, isNew] = answers.try_emplace({way.interface, way.destination.address});
    if (isNew) {
      const sockaddr_in address = way.destination.socketAddress();
      entry->second = ask(reinterpret_cast<const sockaddr&>(address));
    }
    return entry->second;
  }

  Interfaces& interfaces_;
  Answers routes_;
  Answers others_;
};

RelayLifetime::RelayLifetime(EventLoop& loop) : loop_(loop) {
  loop_.watch(watch_.descriptor(), *this);
}

RelayLifetime::~RelayLifetime() {
  loop_.unwatch(watch_.descriptor());
  if (timer_) {
    loop_.cancel(*timer_);
  }
  for (const auto& [relay, use] : inUse_) {
    relay->close();
  }
  for (const auto& relay : quiet_) {
    relay->close();
  }
}

void RelayLifetime::add(TURNRelay& relay, RelayListener& listener) {
  InUse& use = inUse_[&relay];
  use.listener = &listener;
  Look look(interfaces_);
  isLost(relay, use, look, loop_.now());
}

void RelayLifetime::retire(std::shared_ptr<TURNRelay> relay) {
  inUse_.erase(relay.get());
  if (!relay->isCutOff() || Look(interfaces_).mayBeClosed(relay->way())) {
    relay->close();
  } else {
    relay->retire();
    quiet_.push_back(std::move(relay));
  }
}

void RelayLifetime::onReadable() {
  watch_.drain();
  look();
}

void RelayLifetime::look() {
  const std::uint64_t now = loop_.now();
  const auto before = std::exchange(lookedAt_, std::nullopt);
  if (before && hasPassed(longestGap, *before, now)) {
    for (auto& [relay, use] : inUse_) {
      use.cutOffAt = now;
      use.replaceableAt.reset();
    }
  }
  Look look(interfaces_);
  std::vector<RelayListener*> lost;
  for (auto& [relay, use] : inUse_) {
    if (isLost(*relay, use, look, now)) {
      lost.push_back(use.listener);
    }
  }
  std::erase_if(quiet_, [&](const auto& relay) {
    const bool mayBeClosed = look.mayBeClosed(relay->way());
    if (mayBeClosed) {
      relay->close();
    }
    return mayBeClosed;
  });
  for (RelayListener* const listener : lost) {
    listener->onLoss(RelayListener::Loss::cutOff);
  }
}

// What is unknown changes nothing: neither a relay nor its counts.
bool RelayLifetime::isLost(TURNRelay& relay, InUse& use, Look& look, std::uint64_t now) {
  const RelayWay way = relay.way();
  const RouteAnswer answer = look.hasRoute(way);
  if (answer == RouteAnswer::unknown && !relay.isCutOff()) {
    lookAgain();
    return false;
  }
  if (answer != RouteAnswer::unknown) {
    const bool wasCutOff = relay.isCutOff();
    relay.setCutOff(answer == RouteAnswer::no);
    if (answer == RouteAnswer::yes) {
      return false;
    }
    if (!wasCutOff) {
      use.cutOffAt = now;
      use.replaceableAt.reset();
    }
  }
  lookAgain();
  const RouteAnswer replaceable = look.isReplaceable(way);
  if (replaceable == RouteAnswer::unknown) {
    return false;
  }
  if (replaceable == RouteAnswer::no) {
    use.replaceableAt.reset();
  } else if (!use.replaceableAt) {
    use.replaceableAt = now;
  }
  return hasPassed(longPatience, use.cutOffAt, now) ||
         (use.replaceableAt && hasPassed(patience, *use.replaceableAt, now));
}

void RelayLifetime::lookAgain() {
  lookedAt_ = loop_.now();
  if (!timer_) {
    timer_ = loop_.after(lookInterval, [this] {
      timer_.reset();
      look();
    });
  }
}

}  // namespace zk
