#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Platform/EventLoop.h"
#include "Platform/Interfaces.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// What happens to the relays of one loop when the machine's network changes.
///
/// A relay is cut off while nothing leads on to the proxy by the interface that it is pinned to, or
/// by any when it is not. It sends nothing meanwhile, and goes on when its way is back. It ends
/// when another way has existed for `patience`, uninterrupted and with its interface working: a new
/// relay would take that one. It ends after `longPatience` in any case, which is what a silent peer
/// is granted (RFC 7675). An interface that flaps, or a suspended night, begins the count anew.
///
/// On the loop's thread.
class RelayLifetime final : EventLoop::Source {
 public:
  static constexpr std::chrono::seconds patience{2};
  static constexpr std::chrono::seconds longPatience{30};

  /// Throws std::system_error when the system refuses what is needed to look.
  explicit RelayLifetime(EventLoop& loop);
  /// Closes all relays.
  ~RelayLifetime();

  /// A relay that receives, and who is told of its loss; looks at its way to the proxy at once.
  void add(TURNRelay& relay, RelayListener& listener);
  /// A relay that nobody uses any more. It is closed: a relay costs two descriptors and an
  /// association at the proxy. One that is cut off is kept quiet until it may be.
  void retire(std::shared_ptr<TURNRelay> relay);

 private:
  struct InUse {
    RelayListener* listener = nullptr;
    std::uint64_t cutOffAt = 0;                    // nanoseconds of the loop's clock
    std::optional<std::uint64_t> replaceableAt{};  // since when another way has existed
  };
  class Look;

  void onReadable() override;
  void look();
  bool isLost(TURNRelay& relay, InUse& use, Look& look, std::uint64_t now);
  void lookAgain();

  EventLoop& loop_;
  RouteWatch watch_;
  Interfaces interfaces_;
  std::unordered_map<TURNRelay*, InUse> inUse_;
  std::vector<std::shared_ptr<TURNRelay>> quiet_;
  std::optional<EventLoop::TimerID> timer_;  // while a relay in use is cut off
  std::optional<std::uint64_t> lookedAt_;    // likewise
};

}  // namespace zk
