#include "ZelkorTURN/TURNServer.h"

#include <cerrno>
#include <vector>

#include <sys/socket.h>

#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
#include "Platform/Thread.h"
#include "ZelkorTURN/PerClientRelayProxy.h"

namespace zk {
namespace {

constexpr std::size_t largestDatagram = 65536;
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

// Whether a datagram is ChannelData or a Send indication. Everything else may open or close a
// relay.
bool isData(ByteView datagram) {
  return datagram[0] >> 6 == 0b01 ||
         (datagram.size() >= 2 && datagram[0] == 0x00 && datagram[1] == 0x16);
}

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
    recvThread_ = startThread("zk.turn.server.recv", [weak = weak_from_this()] {
      if (const auto server = weak.lock()) {
        server->recvLoop();
      }
    });
  } catch (...) {
    serverFD_ = -1;
    closeSocket(fd);
    throw;
  }
}

void TURNServer::recvLoop() {
  const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(largestDatagram);
  // stop() takes the descriptor away, so that there is no flag to look at besides.
  for (int fd = serverFD_; fd >= 0; fd = serverFD_) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const ssize_t received = recvfrom(fd, buffer.get(), largestDatagram, 0,
                                      reinterpret_cast<sockaddr*>(&sender), &length);
    if (received < 0 && (errno == EBADF || errno == EINVAL || errno == ENOTSOCK)) {
      return;
    }
    if (received > 0 && serverFD_ >= 0) {
      submitDatagram({buffer.get(), static_cast<std::size_t>(received)}, sender);
    }
  }
}

void TURNServer::submitDatagram(ByteView datagram, const sockaddr_in& sender) {
  FiveTuple client{addressText(sender), portNumber(sender), TransportProtocol::udp};
  logLine(debugLog, FMT_COMPILE("rx {}B from {}:{} firstByte=0x{:02x} kind={}"), datagram.size(),
          client.clientIP, client.clientPort, datagram[0], kindOf(datagram[0]));
  const bool isShort = isData(datagram);
  if (isShort && serialQ_.runIfIdle([&] { dispatch(datagram, client); })) {
    return;
  }
  if (!reserveQueueRoom(datagram.size())) {
    return;
  }
  Task task([weak = weak_from_this(), bytes = Bytes(datagram.begin(), datagram.end()),
             client = std::move(client)] {
    if (const auto server = weak.lock()) {
      server->releaseQueueRoom(bytes.size());
      server->dispatch(bytes, client);
    }
  });
  if (isShort) {
    serialQ_.asyncShort(std::move(task));
  } else {
    serialQ_.async(std::move(task));
  }
}

bool TURNServer::reserveQueueRoom(std::size_t octets) {
  const std::size_t cost = octets + queueOverhead;
  if (queuedOctets_.fetch_add(cost, std::memory_order_relaxed) + cost <= queueLimit) {
    return true;
  }
  releaseQueueRoom(octets);
  return false;
}

void TURNServer::releaseQueueRoom(std::size_t octets) {
  queuedOctets_.fetch_sub(octets + queueOverhead, std::memory_order_relaxed);
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
