#include "ZelkorTURN/Clients.h"

#include <utility>

namespace zk {

void Opening::keep(ByteView datagram) {
  if (kept.size() == maxDatagrams || octets + datagram.size() > maxOctets) {
    return;
  }
  const auto message = TURNMessageView::decode(datagram);
  if (message && message->method == TURNMethod::allocate && message->txID == allocate.txID) {
    return;
  }
  octets += datagram.size();
  kept.emplace_back(datagram.begin(), datagram.end());
}

Client& Clients::open(ClientEvents& events, const PendingAllocate& allocate) {
  auto& record = records_[allocate.client];
  record = std::make_unique<Client>(events, allocate);
  return *record;
}

std::shared_ptr<TURNRelay> Clients::release(Client& client) {
  released_.push_back(std::move(records_.extract(client.endpoint).mapped()));
  return std::exchange(client.relay, nullptr);
}

}  // namespace zk
