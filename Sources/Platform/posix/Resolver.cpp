#include "Platform/Resolver.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <system_error>

#include <netdb.h>
#include <poll.h>

#include "Platform/Mutex.h"
#include "Platform/StopSignal.h"
#include "Platform/Thread.h"

namespace zk {
namespace {

// Threads that still wait for the resolver after their caller has given up. A silent resolver keeps
// each for half a minute; clients that keep trying must not pile them up.
constexpr int mostLeftBehind = 16;
std::atomic<int> leftBehind{0};

Resolution ask(const std::string& host, const std::string& port, const addrinfo& hints) {
  addrinfo* list = nullptr;
  const int code = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  Resolution result;
  if (code == 0) {
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
      ResolvedAddress resolved{entry->ai_family, {}};
      std::memcpy(&resolved.address, entry->ai_addr,
                  std::min<std::size_t>(entry->ai_addrlen, sizeof resolved.address));
      result.addresses.push_back(resolved);
    }
    freeaddrinfo(list);
  }
  if (result.addresses.empty()) {
    result.error = gai_strerror(code);
  }
  return result;
}

// One lookup, shared by the thread that does it and the one that waits.
class Lookup {
 public:
  void conclude(Resolution result) {
    const MutexLock guard(lock_);
    result_ = std::move(result);
    concluded_.raise();
    if (isLeftBehind_) {
      --leftBehind;
    }
  }

  Resolution await(Deadline deadline, const StopSignal* stop) {
    const Wait outcome = waitFor(concluded_.descriptor(), POLLIN, deadline, stop);
    const MutexLock guard(lock_);
    if (concluded_.isRaised()) {
      return std::move(result_);
    }
    isLeftBehind_ = true;
    ++leftBehind;
    return {{}, outcome == Wait::stopped ? "stopped" : gai_strerror(EAI_AGAIN)};
  }

 private:
  StopSignal concluded_;
  Mutex lock_;
  Resolution result_ GUARDED_BY(lock_);
  bool isLeftBehind_ GUARDED_BY(lock_) = false;
};

Resolution resolve(const std::string& host, const std::string& port, addrinfo hints,
                   Deadline deadline, const StopSignal* stop) {
  // The resolver would read a name with a NUL in it as the shorter name in front of the NUL.
  if (host.find('\0') != std::string::npos) {
    return {{}, gai_strerror(EAI_NONAME)};
  }
  hints.ai_flags = AI_NUMERICHOST;
  Resolution numeric = ask(host, port, hints);
  if (!numeric.addresses.empty()) {
    return numeric;
  }
  if (leftBehind >= mostLeftBehind) {
    return {{}, "too many lookups are still waiting for the resolver"};
  }
  hints.ai_flags = 0;
  try {
    const auto lookup = std::make_shared<Lookup>();
    startThread("zk.resolve", [=] { lookup->conclude(ask(host, port, hints)); }).detach();
    return lookup->await(deadline, stop);
  } catch (const std::system_error& error) {  // no thread or no pipe to be had
    return {{}, "no lookup: " + errorText(error.code().value())};
  }
}

addrinfo hintsFor(int family, int type, int protocol) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = type;
  hints.ai_protocol = protocol;
  return hints;
}

}  // namespace

Resolution resolveTCP(const std::string& host, const std::string& port, Deadline deadline,
                      const StopSignal* stop) {
  return resolve(host, port, hintsFor(AF_UNSPEC, SOCK_STREAM, IPPROTO_TCP), deadline, stop);
}

Resolution resolveUDPv4(const std::string& host, const std::string& port, Deadline deadline,
                        const StopSignal* stop) {
  return resolve(host, port, hintsFor(AF_INET, SOCK_DGRAM, IPPROTO_UDP), deadline, stop);
}

}  // namespace zk
