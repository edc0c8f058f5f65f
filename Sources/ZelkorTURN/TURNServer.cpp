#include "ZelkorTURN/TURNServer.h"

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>

#include "Platform/Datagrams.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Platform/Thread.h"
#include "ZelkorTURN/PerClientRelayProxy.h"

namespace zk {
namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;

const char* kindOf(std::uint8_t firstByte) {
  switch (firstByte >> 6) {
    case 0b00:
      return "STUN";
    case 0b01:
      return "ChannelData";
    default:
      return "unknown";
  }
}

// Whether a datagram may be a message that opens or closes a relay. Data cannot, which is
// ChannelData and Send indications, nor can what is no message at all.
bool mayBeRequest(ByteView datagram) {
  constexpr auto cookie = TURNMessage::magicCookie;
  return datagram.size() >= TURNMessage::headerSize && datagram[0] >> 6 == 0b00 &&
         !(datagram[0] == 0x00 && datagram[1] == 0x16) &&
         std::equal(cookie.begin(), cookie.end(), datagram.begin() + 4);
}

// The datagrams of a burst with their octets, when the receive buffers are needed for the next.
template <typename Datagram>
class KeptBurst {
 public:
  explicit KeptBurst(std::span<const Datagram> burst) : datagrams_(burst.begin(), burst.end()) {
    std::size_t size = 0;
    for (const Datagram& datagram : burst) {
      size += datagram.payload.size();
    }
    octets_.reserve(size);  // and so they stay where they are
    for (Datagram& datagram : datagrams_) {
      const std::size_t at = octets_.size();
      octets_.insert(octets_.end(), datagram.payload.begin(), datagram.payload.end());
      datagram.payload = ByteView(octets_).subspan(at);
    }
  }
  std::span<const Datagram> datagrams() const { return datagrams_; }

 private:
  std::vector<Datagram> datagrams_;  // their payloads lie in octets_
  Bytes octets_;
};

}  // namespace

POSIXError::POSIXError(const std::string& prefix, int code)
    : code_(code), description_(prefix + errorText(code)) {}

TURNServer::TURNServer(Credentials credentials, std::string realm,
                       std::shared_ptr<TURNRelayFactory> relayFactory, MonotonicClock clock)
    : credentials_(std::move(credentials)),
      realm_(std::move(realm)),
      relayFactory_(std::move(relayFactory)),
      clock_(std::move(clock)) {}

void TURNServer::start() {
  {
    const std::lock_guard guard(stopFlag_);
    if (serverFD_ >= 0 || isStopped_) {
      throw TURNServerError::alreadyStartedOrStopped();
    }
  }
  const int fd = openUDPSocket();
  if (fd < 0) {
    throw POSIXError("socket: ", errno);
  }
  if (!bindSocket(fd, socketAddress("127.0.0.1", 0))) {
    const int error = errno;
    closeSocket(fd);
    throw POSIXError("bind: ", error);
  }
  boundPort_ = portNumber(localAddress(fd));
  startTime_ = clock_();
  allocationTable_ = std::make_unique<AllocationTable>(
      std::make_shared<PerClientRelayProxy>(weak_from_this()), realm_);
  allocationTable_->debugLog = debugLog;
  serverFD_ = fd;
  logLine(debugLog, FMT_COMPILE("bound 127.0.0.1:{}"), boundPort_.load());
  try {
    const auto receiver = std::make_shared<DatagramReceiver>(DatagramReceiver::Senders::noted);
    recvThread_ = startThread("zk.turn.server.recv", [weak = weak_from_this(), receiver] {
      if (const auto server = weak.lock()) {
        server->recvLoop(*receiver);
      }
    });
  } catch (...) {
    serverFD_ = -1;
    closeSocket(fd);
    throw;
  }
}

void TURNServer::recvLoop(DatagramReceiver& receiver) {
  std::vector<ClientDatagram> burst;
  burst.reserve(mostPerCall);
  sockaddr_in last{};  // who sent the last datagram, and as a client: mostly the next one's too
  FiveTuple client;
  // stop() takes the descriptor away, so that there is no flag to look at besides.
  for (int fd = serverFD_; fd >= 0; fd = serverFD_) {
    const int received = receiver.receive(fd);
    if (received < 0 && (errno == EBADF || errno == EINVAL || errno == ENOTSOCK)) {
      return;
    }
    burst.clear();
    for (int i = 0; i < received && serverFD_ >= 0; ++i) {
      const ByteView datagram = receiver.datagram(static_cast<std::size_t>(i));
      const sockaddr_in& sender = receiver.sender(static_cast<std::size_t>(i));
      if (datagram.empty()) {
        continue;
      }
      if (sender.sin_port != last.sin_port || sender.sin_addr.s_addr != last.sin_addr.s_addr) {
        last = sender;
        client = {addressText(sender), portNumber(sender), TransportProtocol::udp};
      }
      logLine(debugLog, FMT_COMPILE("rx {}B from {}:{} firstByte=0x{:02x} kind={}"),
              datagram.size(), client.clientIP, client.clientPort, datagram[0],
              kindOf(datagram[0]));
      burst.push_back({datagram, client});
    }
    submitFromClients(burst);
  }
}

// Requests go each by itself, and what stands between them together.
void TURNServer::submitFromClients(std::span<const ClientDatagram> burst) {
  const auto dispatchThem = [](TURNServer& server, std::span<const ClientDatagram> datagrams) {
    server.dispatchAll(datagrams);
  };
  while (!burst.empty()) {
    const auto request = std::find_if(burst.begin(), burst.end(), [](const auto& datagram) {
      return mayBeRequest(datagram.payload);
    });
    const auto before = static_cast<std::size_t>(request - burst.begin());
    const std::size_t taken = std::max<std::size_t>(before, 1);
    submit(burst.first(taken), before > 0, dispatchThem);
    burst = burst.subspan(taken);
  }
}

void TURNServer::deliverFromRelay(std::span<const PeerDatagram> burst, const FiveTuple& client) {
  submit(burst, true,
         [client = FiveTuple(client)](TURNServer& server, std::span<const PeerDatagram> datagrams) {
           server.deliverFromRelayOnQueue(datagrams, client);
         });
}

// Has the queue run `handler` on a burst: at once and in place when the work is short and the queue
// idle, with a copy later otherwise.
template <typename Datagram, typename Handler>
void TURNServer::submit(std::span<const Datagram> burst, bool isShort, const Handler& handler) {
  if (isShort && serialQ_.runIfIdle([&] { handler(*this, burst); })) {
    return;
  }
  std::size_t room = 0;
  for (const Datagram& datagram : burst) {
    room += datagram.payload.size() + queueOverhead;
  }
  if (queuedOctets_.fetch_add(room, std::memory_order_relaxed) + room > queueLimit) {
    queuedOctets_.fetch_sub(room, std::memory_order_relaxed);
    return;
  }
  Task task([weak = weak_from_this(), room, handler = Handler(handler), kept = KeptBurst(burst)] {
    if (const auto server = weak.lock()) {
      server->queuedOctets_.fetch_sub(room, std::memory_order_relaxed);
      handler(*server, kept.datagrams());
    }
  });
  if (isShort) {
    serialQ_.asyncShort(std::move(task));
  } else {
    serialQ_.async(std::move(task));
  }
}

std::uint32_t TURNServer::now() const {
  return static_cast<std::uint32_t>((clock_() - startTime_) / nanosecondsPerSecond);
}

void TURNServer::sendToClient(ByteView message, const FiveTuple& client) const {
  const int fd = serverFD_;
  if (fd >= 0) {
    sendDatagram(fd, message, socketAddress(client.clientIP, client.clientPort));
  }
}

void TURNServer::stop() {
  int fd = -1;
  {
    const std::lock_guard guard(stopFlag_);
    if (isStopped_) {
      return;
    }
    isStopped_ = true;
    fd = serverFD_.exchange(-1);
  }
  if (fd >= 0) {
    shutdownSocket(fd);
  }
  if (recvThread_.joinable()) {
    recvThread_.join();
  }
  std::vector<Relay> relays;
  serialQ_.sync([&] {
    for (auto& [client, relay] : relayMap_) {
      relays.push_back(std::move(relay));
    }
    relayMap_.clear();
  });
  for (const Relay& relay : relays) {
    relay->close();
  }
  // Only now: the receive thread and work that was queued may have read the descriptor before it
  // became -1, and must not find its number in other hands.
  if (fd >= 0) {
    closeSocket(fd);
  }
}

}  // namespace zk
