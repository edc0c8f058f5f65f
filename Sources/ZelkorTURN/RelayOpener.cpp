#include "ZelkorTURN/RelayOpener.h"

#include <system_error>
#include <utility>

#include "Platform/Interfaces.h"
#include "Platform/Thread.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"

namespace zk {

RelayOpener::RelayOpener(std::shared_ptr<TURNRelayFactory> factory, LogCallback debugLog,
                         StartThread startThread)
    : factory_(std::move(factory)),
      debugLog_(std::move(debugLog)),
      startThread_(std::move(startThread)) {}

void RelayOpener::startDetachedThread(const std::string& label, std::function<void()> body) {
  startThread(label, std::move(body)).detach();
}

void RelayOpener::open(const Endpoint& client, Done done) {
  {
    const MutexLock guard(lock_);
    if (stop_.isRaised()) {
      return;
    }
    if (waiting_.size() < maxWaiting) {
      waiting_.push_back({client, std::exchange(done, nullptr)});
      if (threads_ == maxOpenings) {
        return;
      }
      ++threads_;
    }
  }
  if (done) {
    done(std::nullopt);
    return;
  }
  try {
    startThread_("zk.turn.open", [this] { work(); });
  } catch (const std::system_error& error) {
    logLine(debugLog_, FMT_COMPILE("relay OPEN FAILED both rungs: no thread: {}"), error.what());
    std::deque<Job> failed;
    {
      const MutexLock guard(lock_);
      if (--threads_ == 0) {  // others would come to it
        failed.swap(waiting_);
      }
      ended_.notify_all();
    }
    for (const Job& job : failed) {
      job.done(std::nullopt);
    }
  }
}

void RelayOpener::stop() {
  const MutexLock guard(lock_);
  waiting_.clear();  // first: what is interrupted would take it up
  stop_.raise();
  while (threads_ > 0) {
    ended_.wait(lock_);
  }
}

// On an opening's thread: one job after the other until none is left.
void RelayOpener::work() {
  while (true) {
    Job job;
    {
      const MutexLock guard(lock_);
      if (waiting_.empty()) {
        --threads_;
        ended_.notify_all();
        return;
      }
      job = std::move(waiting_.front());
      waiting_.pop_front();
    }
    auto opened = tryBoth(job.client);
    if (!stop_.isRaised()) {
      job.done(std::move(opened));
    }
  }
}

std::optional<RelayOpener::Opened> RelayOpener::tryBoth(const Endpoint& client) {
  logLine(debugLog_, FMT_COMPILE("relay OPEN attempt for {}…"), client.text());
  const auto attempts = openingAttempts(&stop_);
  for (const OpeningAttempt& how : attempts) {
    try {
      Opened opened = attempt(client, how);
      logLine(debugLog_, FMT_COMPILE("relay OPEN ok ({}) ip={} port={}"),
              how.viaDefault ? "via-default" : "en0", opened.address.ip(), opened.address.port);
      return opened;
    } catch (const std::exception& error) {
      if (stop_.isRaised()) {
        break;
      }
      // Who cannot look at the interfaces does not know whether to pin: the second attempt would go
      // by a VPN, and nobody would ever be told.
      if (&how == &attempts.back() || dynamic_cast<const LookFailed*>(&error) != nullptr) {
        logLine(debugLog_, FMT_COMPILE("relay OPEN FAILED both rungs: {}"), error.what());
        break;
      }
      logLine(debugLog_,
              FMT_COMPILE("relay OPEN en0 failed ({}) → retry via-default (full-tunnel VPN)"),
              error.what());
    }
  }
  return std::nullopt;
}

// An address that no client can be told (the host name of a proxy, say) is a failure too.
RelayOpener::Opened RelayOpener::attempt(const Endpoint& client, const OpeningAttempt& how) {
  auto relay = factory_->makeRelay(client);
  const RelayedAddress found = relay->allocateRelay(how);
  const auto address = parseAddress(found.ip);
  if (!address) {
    throw SOCKS5Error::connectionFailed("relayed address is not IPv4: " + found.ip);
  }
  return {std::move(relay), {*address, found.port}};
}

}  // namespace zk
