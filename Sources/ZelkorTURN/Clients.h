#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "ZelkorTURN/AllocationTable.h"
#include "ZelkorTURN/RelayInterfaces.h"

namespace zk {

struct Client;

/// Who is told what the relays of clients have to say, on the loop's thread.
class ClientEvents {
 public:
  virtual void onDatagrams(Client& client, std::span<const ReceivedDatagram> datagrams) = 0;
  virtual void onAssociationEnd(Client& client, std::string_view reason) = 0;
  virtual void onLoss(Client& client, RelayListener::Loss loss) = 0;

 protected:
  ~ClientEvents() = default;
};

/// An Allocate whose relay is being opened, and what its client has sent since.
struct Opening {
  /// The rest is dropped.
  static constexpr std::size_t maxDatagrams = 64;
  static constexpr std::size_t maxOctets = 64 << 10;

  PendingAllocate allocate;
  std::deque<Bytes> kept{};
  std::size_t octets = 0;

  /// Keeps a datagram, unless it repeats the Allocate that is being answered already.
  void keep(ByteView datagram);
};

/// All that belongs to one client: it is opening, or open and has a relay, or released. Everything
/// else is a request from somebody who has no record.
struct Client final : RelayListener {
  Client(ClientEvents& itsEvents, const PendingAllocate& allocate)
      : endpoint(allocate.client),
        events(itsEvents),
        opening(std::make_unique<Opening>(Opening{allocate})) {}

  bool isOpen() const { return relay != nullptr; }

  void onDatagrams(std::span<const ReceivedDatagram> datagrams) override {
    events.onDatagrams(*this, datagrams);
  }
  void onAssociationEnd(std::string_view reason) override {
    events.onAssociationEnd(*this, reason);
  }
  void onLoss(Loss loss) override { events.onLoss(*this, loss); }

  const Endpoint endpoint;
  ClientEvents& events;
  std::unique_ptr<Opening> opening;  // present while it is opening
  std::shared_ptr<TURNRelay> relay;  // present while it is open
  Allocation allocation;             // while it is open
};

/// The records of all clients, found by the address that their datagrams come from. A record stays
/// where it is until the end of the round in which it is released. One thread.
class Clients {
 public:
  /// nullptr when there is none.
  Client* find(const Endpoint& endpoint) const {
    const auto found = records_.find(endpoint);
    return found == records_.end() ? nullptr : found->second.get();
  }
  /// A record for a client that has none.
  Client& open(ClientEvents& events, const PendingAllocate& allocate);
  /// The client has none any more. Hands back its relay, if it had one.
  std::shared_ptr<TURNRelay> release(Client& client);
  /// At the end of a round: destroys what has been released.
  void bury() { released_.clear(); }

  /// Those that are open and for which `condition` holds.
  template <typename Condition>
  std::vector<Client*> those(Condition condition) const {
    std::vector<Client*> found;
    for (const auto& [endpoint, client] : records_) {
      if (client->isOpen() && condition(*client)) {
        found.push_back(client.get());
      }
    }
    return found;
  }

 private:
  std::unordered_map<Endpoint, std::unique_ptr<Client>> records_;
  std::vector<std::unique_ptr<Client>> released_;
};

}  // namespace zk
