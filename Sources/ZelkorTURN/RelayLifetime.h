#pragma once

#include <memory>
#include <unordered_set>
#include <vector>

#include "Platform/EventLoop.h"
#include "Platform/Interfaces.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// What happens to the relays of one loop when the machine's routes change: one that nothing leads
/// on to the proxy sends nothing until something does. On the loop's thread.
class RelayLifetime final : EventLoop::Source {
 public:
  /// Throws std::system_error when the system refuses.
  explicit RelayLifetime(EventLoop& loop);
  /// Closes all of them.
  ~RelayLifetime();

  /// A relay that receives; looks at its way to the proxy at once.
  void add(TURNRelay& relay);
  /// A relay that nobody uses any more. It is closed: a relay costs two descriptors and an
  /// association at the proxy. One that is cut off may not be, and is kept quiet as long as it is.
  void retire(std::shared_ptr<TURNRelay> relay);

 private:
  void onReadable() override;

  EventLoop& loop_;
  RouteWatch watch_;
  Interfaces interfaces_;  // kept: a look must not need a descriptor when there is none left
  std::unordered_set<TURNRelay*> inUse_;
  std::vector<std::shared_ptr<TURNRelay>> quiet_;
};

}  // namespace zk
