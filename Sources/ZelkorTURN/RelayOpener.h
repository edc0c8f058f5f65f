#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Base/Endpoint.h"
#include "Base/LogLine.h"
#include "Platform/Mutex.h"
#include "Platform/StopSignal.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

/// Opens relays beside the loop, several at once, each on a thread of its own: names, the proxy and
/// STUN answers are waited for there and nowhere else. It knows nothing of the server.
class RelayOpener {
 public:
  /// A relay that is open, and the address under which peers see it.
  struct Opened {
    std::shared_ptr<TURNRelay> relay;
    Endpoint address;
  };
  /// Takes the outcome, absent when there is no relay. Called on any thread, also within open().
  using Done = std::function<void(std::optional<Opened>)>;
  /// Runs a body on a new thread of that name, or throws std::system_error.
  using StartThread = std::function<void(const std::string& label, std::function<void()> body)>;

  /// So many are under way at once; more would be many connections to one proxy at a time.
  static constexpr std::size_t maxOpenings = 16;
  /// So many more wait their turn, in the order of arrival. What comes on top fails at once: it
  /// would wait longer than its client does.
  static constexpr std::size_t maxWaiting = 4096;

  /// Throws std::system_error when there is no descriptor to be had.
  RelayOpener(std::shared_ptr<TURNRelayFactory> factory, LogCallback debugLog,
              StartThread startThread = startDetachedThread);
  ~RelayOpener() { stop(); }

  /// Opens a relay for `client` in two attempts, see openingAttempts(). Never blocks.
  void open(const Endpoint& client, Done done);

  /// Abandons what is under way and forgets what waits: no `done` begins after this.
  void stop();

 private:
  struct Job {
    Endpoint client;
    Done done;
  };

  static void startDetachedThread(const std::string& label, std::function<void()> body);
  void work();
  std::optional<Opened> tryBoth(const Endpoint& client);
  Opened attempt(const Endpoint& client, const OpeningAttempt& how);

  const std::shared_ptr<TURNRelayFactory> factory_;
  const LogCallback debugLog_;
  const StartThread startThread_;
  StopSignal stop_;

  Mutex lock_;
  std::condition_variable_any ended_;
  std::deque<Job> waiting_ GUARDED_BY(lock_);
  std::size_t threads_ GUARDED_BY(lock_) = 0;
};

}  // namespace zk
