#pragma once

#include <optional>

#include "Base/Endpoint.h"
#include "Platform/DatagramSocket.h"
#include "Platform/Sockets.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk {

/// One STUN Binding transaction (RFC 5389) through a proxy's UDP relay, without retransmissions.
/// What does not come from the relay is not heard. One thread.
class BindingTransaction {
 public:
  /// Which datagram of the relay ends the waiting; what comes before it is passed over.
  enum class Until {
    datagram,  // the first, whatever it is
    answer,    // the first with this transaction's ID
    mapping,   // the first success response that tells an address
  };
  struct Answer {
    std::optional<Endpoint> mapped;  // absent when it tells none
    Deadline::duration roundTrip{};
  };

  /// Over `socket`, which nobody else reads, through the relay at `relay`.
  BindingTransaction(DatagramSocket& socket, const Endpoint& relay)
      : socket_(socket), relay_(relay) {}

  /// Sends a request to a server. Octets sent, or -1. `size`: of the request, a multiple of 4; more
  /// than the 20 that it needs are an attribute that servers pass over.
  std::ptrdiff_t send(const Endpoint& server, std::size_t size = STUN::headerSize);
  /// The same; the proxy looks up the server's name.
  std::ptrdiff_t send(const HostPort& server, std::size_t size = STUN::headerSize);

  /// Waits for what ends the transaction, until `deadline` and until `stop` is raised, if there is
  /// one. Absent when it does not come. Throws std::system_error when the socket fails.
  std::optional<Answer> await(Until until, Deadline deadline, const StopSignal* stop = nullptr);

 private:
  template <typename Server>
  std::ptrdiff_t sendTo(const Server& server, std::size_t size);
  std::optional<Answer> judge(ByteView datagram, Until until) const;

  DatagramSocket& socket_;
  const Endpoint relay_;
  const STUN::BindingRequest binding_ = STUN::makeBindingRequest();
  Deadline sentAt_;
  DatagramReceiver receiver_;
};

}  // namespace zk
