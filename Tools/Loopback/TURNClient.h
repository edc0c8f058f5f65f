#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "Base/Bytes.h"
#include "Loopback/KitSocket.h"
#include "ZelkorTURN/TURNAuth.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::loopback {

struct TURNCredentials {
  std::string username = "alice";
  std::string password = "wonderland";
  /// Absent: the realm that the server's challenge names.
  std::optional<std::string> realm{};
};

/// The outcome of one request.
struct TURNAnswer {
  std::optional<TURNMessage> message{};  // absent when nothing came in time
  Bytes datagram{};                      // the same as received
  bool integrityVerified = false;        // its MESSAGE-INTEGRITY fits the client's key

  /// A success response that was signed with the right key.
  bool success() const;
  /// The number in ERROR-CODE; 0 when there is none.
  int errorCode() const;
  std::optional<Endpoint> relayedAddress() const;
  std::optional<std::uint32_t> lifetime() const;
};

/// What a client sends to a peer, in either form: without padding, as it is over UDP.
inline constexpr std::size_t channelHeaderSize = 4;
Bytes channelData(std::uint16_t number, ByteView payload);
Bytes sendIndicationTo(const Endpoint& peer, ByteView payload,
                       const TransactionID& transaction = {});

/// A datagram from a peer, in either form.
struct TURNData {
  std::optional<Endpoint> peer;          // it came as a Data indication
  std::optional<std::uint16_t> channel;  // it came as ChannelData
  Bytes payload;
};

/// A TURN client (RFC 5766, UDP, long-term credentials) that blocks. One thread at a time, except
/// that send(), sendIndication() and sendChannelData() may run on one thread while another waits in
/// receive() or receiveData().
class TURNClient {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// A client on a free port of the loopback for the server on 127.0.0.1:`serverPort`. Throws
  /// std::system_error.
  explicit TURNClient(std::uint16_t serverPort, TURNCredentials credentials = {});
  TURNClient(const TURNClient&) = delete;
  TURNClient& operator=(const TURNClient&) = delete;

  /// The client's own address, which the server should report as mapped.
  std::uint16_t localPort() const { return socket_.port(); }
  /// Its socket, for a driver that sends and receives without copies.
  int socket() const { return socket_.get(); }

  /// How long a request waits for its answer; 5 seconds unless set. Opening a relay through a bad
  /// proxy can take the server more than 20.
  void setTimeout(Milliseconds timeout) { timeout_ = timeout; }
  /// Sends a request again, unchanged, each time `interval` has passed without an answer, at most
  /// `times` times. Off unless set.
  void setRetransmission(Milliseconds interval, int times) {
    retransmissionInterval_ = interval;
    retransmissions_ = times;
  }

  /// One datagram as it stands. Whether the system took it.
  bool send(ByteView datagram) { return socket_.send(datagram); }
  /// The next datagram from the server; absent after `timeout`.
  std::optional<Bytes> receive(Milliseconds timeout);

  /// Sends `message` as it stands and waits for the answer with its transaction ID. Other datagrams
  /// that come meanwhile are kept for receive() and receiveData().
  TURNAnswer request(const TURNMessage& message);
  /// Signs `message` with the latest realm and nonce and does the same. A 401 that names the first
  /// nonce and every 438 is followed by one repetition with the new nonce and a new transaction ID.
  TURNAnswer authenticatedRequest(const TURNMessage& message);

  TURNAnswer allocate();
  /// `lifetime` in seconds; absent: no LIFETIME attribute.
  TURNAnswer refresh(std::optional<std::uint32_t> lifetime);
  TURNAnswer createPermission(const Endpoint& peer);
  TURNAnswer bindChannel(std::uint16_t number, const Endpoint& peer);

  bool sendIndication(const Endpoint& peer, ByteView payload) {
    return send(sendIndicationTo(peer, payload, freshTransaction()));
  }
  bool sendChannelData(std::uint16_t number, ByteView payload) {
    return send(channelData(number, payload));
  }
  /// The next datagram from a peer; anything else that comes is thrown away. Absent after
  /// `timeout`.
  std::optional<TURNData> receiveData(Milliseconds timeout);

  static TransactionID freshTransaction();
  /// A request without attributes and with a fresh transaction ID.
  TURNMessage makeRequest(std::uint16_t method);
  /// Appends USERNAME, REALM, NONCE and MESSAGE-INTEGRITY with what the server named last, for
  /// tests that send the result themselves.
  void sign(TURNMessage& message) const;

  /// What the server named last; empty before the first challenge. A test may set its own.
  const std::string& nonce() const { return nonce_; }
  void setNonce(std::string nonce) { nonce_ = std::move(nonce); }
  const std::string& realm() const { return realm_; }

 private:
  std::optional<Bytes> waitForDatagram(std::chrono::steady_clock::time_point deadline);
  TURNAuth::LongTermKey key() const;

  const TURNCredentials credentials_;
  KitSocket socket_ = KitSocket::boundUDP();
  Milliseconds timeout_{5000};
  Milliseconds retransmissionInterval_{0};
  int retransmissions_ = 0;
  std::string realm_;
  std::string nonce_;
  std::deque<Bytes> kept_;  // arrived while request() waited for something else
};

}  // namespace zk::loopback
