#include "ZelkorSeal/ProxyWay.h"

#include <system_error>
#include <utility>

#include "Platform/Interfaces.h"
#include "Platform/Thread.h"

namespace zk {
ProxyWay::ProxyWay(EventLoop& loop, const ProxyAccess& access, std::optional<Way> known)
    : loop_(loop), access_(access), known_(known) {
  if (routes_.descriptor() >= 0) {
    loop_.watch(routes_.descriptor(), *this);
  }
}

ProxyWay::~ProxyWay() {
  stop_.raise();
  if (lookUp_.joinable()) {
    lookUp_.join();
  }
  if (routes_.descriptor() >= 0) {
    loop_.unwatch(routes_.descriptor());
  }
}

ProxyWay::Ticket ProxyWay::await(std::function<void()> done) {
  waiting_.emplace(++count_, std::move(done));
  const Ticket ticket = count_;
  lookUp();
  return ticket;
}

void ProxyWay::doubt(const Way& way) {
  if (known_ && known_->number == way.number) {
    known_.reset();
  }
}

// What is known is used until something better is.
void ProxyWay::onReadable() {
  routes_.drain();
  isOutdated_ = true;
  if (known_) {
    lookUp();
  }
}

void ProxyWay::lookUp() {
  if (lookUp_.joinable()) {
    return;
  }
  isOutdated_ = false;
  const auto conclusion = [&loop = loop_, weak = std::weak_ptr(self_)](std::optional<Way> found,
                                                                       std::string failure) {
    loop.post([weak, found, failure = std::move(failure)] {
      if (const auto self = weak.lock()) {
        (*self)->conclude(found, failure);
      }
    });
  };
  const auto work = [this, conclusion, number = ++count_] {
    std::optional<Way> found;
    std::string failure;
    bool isBlind = false;  // does not know whether to pin: then nothing is tried
    for (const OpeningAttempt& attempt : openingAttempts(&stop_)) {
      if (found || isBlind || attempt.viaDefault < access_.viaDefault) {
        continue;
      }
      try {
        SOCKS5Control control(access_.host, access_.port, std::nullopt, std::nullopt,
                              attempt.connectTimeout, &stop_);
        control.connect(attempt.viaDefault ? std::optional(true) : std::nullopt);
        found = Way{control.proxyAddress(), control.pinnedInterface(), number};
      } catch (const std::exception& error) {
        failure = error.what();
        isBlind = dynamic_cast<const LookFailed*>(&error) != nullptr;
      }
    }
    conclusion(found, failure);
  };
  try {
    lookUp_ = startThread("zk.seal.way", work);
  } catch (const std::system_error& error) {
    conclusion(std::nullopt, error.what());
  }
}

void ProxyWay::conclude(std::optional<Way> found, std::string failure) {
  if (lookUp_.joinable()) {
    lookUp_.join();
  }
  known_ = found;
  failure_ = std::move(failure);
  for (const auto& [ticket, done] : std::exchange(waiting_, {})) {
    done();
  }
  if (isOutdated_ && known_) {
    lookUp();
  }
}

}  // namespace zk
