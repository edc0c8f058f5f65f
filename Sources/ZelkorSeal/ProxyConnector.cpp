#include "ZelkorSeal/ProxyConnector.h"

#include <algorithm>
#include <utility>

namespace zk {

std::unique_ptr<ProxyConnection> ProxyConnector::connect(const Endpoint& to,
                                                         ProxyConnection::Done done) {
  const auto begun = [this] { return std::make_unique<ProxyConnection>(loop_, way_, access_); };
  std::erase_if(spares_, [](const auto& spare) { return !spare->isFit(); });
  std::unique_ptr<ProxyConnection> connection;
  if (spares_.empty()) {
    connection = begun();
  } else {
    connection = std::move(spares_.front());
    spares_.erase(spares_.begin());
  }
  connection->connectTo(to, std::move(done));

  const std::uint64_t now = loop_.now();
  asked_[count_++ % maxSpares] = now;
  const auto wanted = std::count_if(asked_.begin(), asked_.end(), [now](const auto& when) {
    return when && std::chrono::nanoseconds(now - *when) < ProxyConnection::spareLimit;
  });
  while (way_.isSettled() && spares_.size() < static_cast<std::size_t>(wanted)) {
    spares_.push_back(begun());
  }
  return connection;
}

}  // namespace zk
