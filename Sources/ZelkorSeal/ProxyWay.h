#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <sys/socket.h>

#include "Platform/EventLoop.h"
#include "Platform/Interfaces.h"
#include "Platform/StopSignal.h"
#include "ZelkorSOCKS5/Association.h"

namespace zk {

/// The proxy that a sealed program's traffic goes through.
struct ProxyAccess : SOCKS5Proxy {
  bool viaDefault = false;  // by the default route and no other way
};

struct WayToProxy {
  sockaddr_storage address{};
  std::optional<unsigned> interface;  // to which connections are pinned
  std::uint64_t number = 0;           // of the look-up that found it
};

/// The proxy's address and the way to it that worked last: pinned past a VPN, or the default route.
/// Looked up beside the loop when somebody needs it, and anew when the machine's routes change or
/// a connection could not be made. The loop's thread.
class ProxyWay final : EventLoop::Source {
 public:
  using Way = WayToProxy;

  /// `loop` and `access` outlive this. `known` is a way that works, if there is one. Throws
  /// std::system_error.
  ProxyWay(EventLoop& loop, const ProxyAccess& access, std::optional<Way> known = std::nullopt);
  /// Ends what is under way.
  ~ProxyWay();
  ProxyWay(const ProxyWay&) = delete;
  ProxyWay& operator=(const ProxyWay&) = delete;

  const std::optional<Way>& known() const { return known_; }
  /// One is known, and nothing says that there may be a better one by now.
  bool isSettled() const { return known_ && !lookUp_.joinable(); }
  /// Why none is known; empty when none was looked for.
  const std::string& failure() const { return failure_; }

  /// Calls `done` once, when the look-up that this begins, or that is under way, has ended.
  using Ticket = std::uint64_t;
  Ticket await(std::function<void()> done);
  void cancel(Ticket ticket) { waiting_.erase(ticket); }

  /// A connection that went `way` could not be made.
  void doubt(const Way& way);

 private:
  void onReadable() override;
  void lookUp();
  void conclude(std::optional<Way> found, std::string failure);

  EventLoop& loop_;
  const ProxyAccess& access_;
  RouteWatch routes_;
  StopSignal stop_;
  std::optional<Way> known_;
  std::string failure_;
  std::map<Ticket, std::function<void()>> waiting_;
  std::uint64_t count_ = 0;  // of tickets and look-ups
  std::thread lookUp_;       // while one is under way
  const std::shared_ptr<ProxyWay*> self_ = std::make_shared<ProxyWay*>(this);  // for tasks
  bool isOutdated_ = false;  // the routes have changed since it began
};

}  // namespace zk
