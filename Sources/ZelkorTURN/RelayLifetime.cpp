#include "ZelkorTURN/RelayLifetime.h"

#include <map>
#include <utility>

namespace zk {
namespace {

// Asks the system once for each way: mostly all relays have the same.
class RouteLook {
 public:
  explicit RouteLook(Interfaces& interfaces) : interfaces_(interfaces) {}

  void judge(TURNRelay& relay) {
    const RelayWay way = relay.way();
    if (!way.interface) {
      return;
    }
    const auto [entry, isNew] = known_.try_emplace({*way.interface, way.destination.address});
    if (isNew) {
      const sockaddr_in address = way.destination.socketAddress();
      entry->second =
          interfaces_.askRoute(*way.interface, reinterpret_cast<const sockaddr&>(address));
    }
    if (entry->second != RouteAnswer::unknown) {
      relay.setCutOff(entry->second == RouteAnswer::no);
    }
  }

 private:
  Interfaces& interfaces_;
  std::map<std::pair<unsigned, std::uint32_t>, RouteAnswer> known_;
};

}  // namespace

RelayLifetime::RelayLifetime(EventLoop& loop) : loop_(loop) {
  loop_.watch(watch_.descriptor(), *this);
}

RelayLifetime::~RelayLifetime() {
  loop_.unwatch(watch_.descriptor());
  for (TURNRelay* const relay : inUse_) {
    relay->close();
  }
  for (const auto& relay : quiet_) {
    relay->close();
  }
}

void RelayLifetime::add(TURNRelay& relay) {
  inUse_.insert(&relay);
  RouteLook(interfaces_).judge(relay);
}

void RelayLifetime::retire(std::shared_ptr<TURNRelay> relay) {
  inUse_.erase(relay.get());
  if (relay->isCutOff()) {
    relay->retire();
    quiet_.push_back(std::move(relay));
  } else {
    relay->close();
  }
}

void RelayLifetime::onReadable() {
  watch_.drain();
  RouteLook look(interfaces_);
  for (TURNRelay* const relay : inUse_) {
    look.judge(*relay);
  }
  std::erase_if(quiet_, [&](const auto& relay) {
    look.judge(*relay);
    return !relay->isCutOff();
  });
}

}  // namespace zk
